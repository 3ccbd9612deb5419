#include "message/node.h"

namespace kl::container {

void giveNode(Memory& memory, Node* node) {
  destroyObject(*node);
  memory.give(node, sizeof(Node) + node->roomBytes());
}

void destroyObject(Node& node) {
  if (!node.hasObject()) return;
  withObjectKind(node.kind, [&]<Kind k>() { delete node.objectIfAny<k>(); });
  node.object.store(nullptr, std::memory_order_relaxed);
}

// N3: the winner's object is the one that everybody gets.
template <Kind k>
Object<k>* objectOf(const Node& node) {
  if (Object<k>* object = node.objectIfAny<k>(); object != nullptr) return object;
  auto* fresh = new Object<k>(decoded<k>(node));
  void* published = nullptr;
  if (node.object.compare_exchange_strong(published, fresh, std::memory_order_acq_rel)) return fresh;
  delete fresh;
  return static_cast<Object<k>*>(published);
}

template std::string* objectOf<Kind::string>(const Node&);
template kl::message::flat_message* objectOf<Kind::message>(const Node&);
template Bytes* objectOf<Kind::raw>(const Node&);
template std::vector<bool>* objectOf<Kind::boolArray>(const Node&);
template std::vector<unsigned int>* objectOf<Kind::u32Array>(const Node&);
template std::vector<unsigned long long>* objectOf<Kind::u64Array>(const Node&);
template std::vector<IPAddr6>* objectOf<Kind::addr6Array>(const Node&);
template std::vector<std::string>* objectOf<Kind::stringArray>(const Node&);
template std::vector<kl::message::flat_message>* objectOf<Kind::messageArray>(const Node&);
template std::vector<Bytes>* objectOf<Kind::rawArray>(const Node&);

Span bytesOf(const Node& node) {
  if (!node.hasObject()) return {node.content(), node.size};
  if (node.kind == Kind::string) {
    const std::string& text = *node.objectIfAny<Kind::string>();
    return {asBytes(text), text.size()};
  }
  const Bytes& bytes =
      node.kind == Kind::raw ? *node.objectIfAny<Kind::raw>() : *node.objectIfAny<Kind::message>();
  return {bytes.data(), bytes.size()};
}

std::size_t valueBytes(const Node& node) {
  std::size_t bytes = node.size;
  if (node.hasObject())
    withObjectKind(node.kind, [&]<Kind k>() { bytes = encodedSize(*node.objectIfAny<k>()); });
  return bytes;
}

std::size_t valueCount(const Node& node) {
  std::size_t count = node.count;
  if (node.hasObject())
    withObjectKind(node.kind, [&]<Kind k>() { count = elementCount(*node.objectIfAny<k>()); });
  return count;
}

Elements::Elements(const Node& node)
    : node_(node),
      object_(node.object.load(std::memory_order_acquire)),
      at_(object_ == nullptr ? node.content() : nullptr),
      count_(valueCount(node)) {}

void Elements::next() {
  if (object_ == nullptr) at_ += hasLongElements(node_.kind) ? 2u + loadLe16(at_) : elementBytes(node_.kind);
  ++index_;
}

unsigned long long Elements::number() const {
  switch (node_.kind) {
    case Kind::boolArray:
      return object_ == nullptr ? *at_ != 0 : (*static_cast<const std::vector<bool>*>(object_))[index_];
    case Kind::u32Array:
      return object_ == nullptr ? loadLe32(at_)
                                : (*static_cast<const std::vector<unsigned int>*>(object_))[index_];
    default:  // u64 array
      return object_ == nullptr ? loadLe64(at_)
                                : (*static_cast<const std::vector<unsigned long long>*>(object_))[index_];
  }
}

Span Elements::bytes() const {
  if (object_ == nullptr && node_.kind == Kind::addr6Array) return {at_, 16};
  if (object_ == nullptr) return {at_ + 2, loadLe16(at_)};
  const auto whole = [](const auto& v) { return Span{asBytes(v), v.size()}; };
  switch (node_.kind) {
    case Kind::addr6Array: return {(*static_cast<const std::vector<IPAddr6>*>(object_))[index_].bytes, 16};
    case Kind::stringArray: return whole((*static_cast<const std::vector<std::string>*>(object_))[index_]);
    case Kind::messageArray:
      return whole((*static_cast<const std::vector<kl::message::flat_message>*>(object_))[index_]);
    default: return whole((*static_cast<const std::vector<Bytes>*>(object_))[index_]);  // raw array
  }
}

}  // namespace kl::container
