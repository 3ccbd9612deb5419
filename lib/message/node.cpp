// The values of nodes: out of bytes into objects, and element by element.

#include "message/node.h"

#include "message/values.h"

namespace kl::container {

void giveNode(Memory& memory, Node* node) {
  destroyObject(*node);
  memory.give(node, sizeof(Node) + node->roomBytes());
}

void destroyObject(Node& node) {
  if (node.hasObject()) deleteObject(node.kind, node.object.exchange(nullptr, std::memory_order_relaxed));
}

std::vector<kl::message::flat_message> decodedMessages(const unsigned char* at, std::size_t count) {
  return decodedElements<kl::message::flat_message>(at, count);
}

KL_COMMON_VALUES(template)

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
  return node.hasObject() ? objectBytes(node.kind, node.anyObject()) : node.size;
}

std::size_t valueCount(const Node& node) {
  return node.hasObject() ? objectCount(node.kind, node.anyObject()) : node.count;
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
