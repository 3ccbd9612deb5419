// The values of nodes: out of bytes into objects, and element by element.

#include "message/node.h"

#include <iterator>

namespace kl::container {
namespace {

// Walks over little-endian numbers, so that a vector is made in one go.
template <class Number>
class NumberIterator {
 public:
  using iterator_category = std::random_access_iterator_tag;
  using value_type = Number;
  using difference_type = std::ptrdiff_t;
  using pointer = const Number*;
  using reference = Number;

  explicit NumberIterator(const unsigned char* at) : at_(at) {}
  Number operator*() const {
    if constexpr (sizeof(Number) == 4) return loadLe32(at_);
    else return loadLe64(at_);
  }
  NumberIterator& operator++() {
    at_ += sizeof(Number);
    return *this;
  }
  difference_type operator-(const NumberIterator& other) const {
    return (at_ - other.at_) / static_cast<difference_type>(sizeof(Number));
  }
  bool operator==(const NumberIterator&) const = default;

 private:
  const unsigned char* at_;
};

template <class Value>
struct Decoded;
template <>
struct Decoded<std::string> {
  static std::string from(const unsigned char* at, std::size_t bytes, std::size_t) {
    return {reinterpret_cast<const char*>(at), bytes};
  }
};
template <>
struct Decoded<Bytes> {
  static Bytes from(const unsigned char* at, std::size_t bytes, std::size_t) { return {at, at + bytes}; }
};
template <>
struct Decoded<kl::message::flat_message> {
  static kl::message::flat_message from(const unsigned char* at, std::size_t bytes, std::size_t) {
    return {at, at + bytes};
  }
};
template <>
struct Decoded<std::vector<bool>> {
  static std::vector<bool> from(const unsigned char* at, std::size_t, std::size_t count) {
    std::vector<bool> v(count);
    for (std::size_t i = 0; i < count; ++i) v[i] = at[i] != 0;
    return v;
  }
};
template <class Number>
requires std::is_integral_v<Number>
struct Decoded<std::vector<Number>> {
  static std::vector<Number> from(const unsigned char* at, std::size_t, std::size_t count) {
    return {NumberIterator<Number>(at), NumberIterator<Number>(at + count * sizeof(Number))};
  }
};
template <>
struct Decoded<std::vector<IPAddr6>> {
  static std::vector<IPAddr6> from(const unsigned char* at, std::size_t, std::size_t count) {
    std::vector<IPAddr6> v(count);
    for (std::size_t i = 0; i < count; ++i) std::memcpy(v[i].bytes, at + 16 * i, 16);
    return v;
  }
};
template <class Element>
requires requires(Element e) { e.size(); }
struct Decoded<std::vector<Element>> {
  static std::vector<Element> from(const unsigned char* at, std::size_t, std::size_t count) {
    std::vector<Element> v;
    v.reserve(count);
    for (; count > 0; --count) {
      const std::size_t bytes = loadLe16(at);
      if constexpr (std::is_same_v<Element, std::string>)
        v.emplace_back(reinterpret_cast<const char*>(at + 2), bytes);
      else v.emplace_back(at + 2, at + 2 + bytes);
      at += 2 + bytes;
    }
    return v;
  }
};

}  // namespace

void giveNode(Memory& memory, Node* node) {
  destroyObject(*node);
  memory.give(node, sizeof(Node) + node->roomBytes());
}

void destroyObject(Node& node) {
  if (!node.hasObject()) return;
  withObjectKind(node.kind, [&]<Kind k>() { delete node.objectIfAny<k>(); });
  node.object.store(nullptr, std::memory_order_relaxed);
}

template <Kind k>
Object<k> decoded(const unsigned char* at, std::size_t bytes, std::size_t count) {
  return Decoded<Object<k>>::from(at, bytes, count);
}

template <Kind k>
Object<k> valueOf(const Node& node) {
  if (const Object<k>* object = node.objectIfAny<k>(); object != nullptr) return *object;
  return decoded<k>(node.content(), node.size, node.count);
}

// N3: the winner's object is the one that everybody gets.
template <Kind k>
Object<k>* objectOf(const Node& node) {
  if (Object<k>* object = node.objectIfAny<k>(); object != nullptr) return object;
  auto* fresh = new Object<k>(decoded<k>(node.content(), node.size, node.count));
  void* published = nullptr;
  if (node.object.compare_exchange_strong(published, fresh, std::memory_order_acq_rel)) return fresh;
  delete fresh;
  return static_cast<Object<k>*>(published);
}

#define KL_FOR_KIND(kind)                                                              \
  template Object<kind> decoded<kind>(const unsigned char*, std::size_t, std::size_t); \
  template Object<kind> valueOf<kind>(const Node&);                                    \
  template Object<kind>* objectOf<kind>(const Node&)
KL_FOR_KIND(Kind::string);
KL_FOR_KIND(Kind::message);
KL_FOR_KIND(Kind::raw);
KL_FOR_KIND(Kind::boolArray);
KL_FOR_KIND(Kind::u32Array);
KL_FOR_KIND(Kind::u64Array);
KL_FOR_KIND(Kind::addr6Array);
KL_FOR_KIND(Kind::stringArray);
KL_FOR_KIND(Kind::messageArray);
KL_FOR_KIND(Kind::rawArray);
#undef KL_FOR_KIND

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
