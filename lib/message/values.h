#pragma once
// values.h: what is done for each kind of value that may become an object.
//
// The kinds that most messages have are compiled where they must be fast, node.cpp and rep.cpp; the others, of which
// there is as much code, in rep_objects.cpp, which is compiled to be small.

#include <iterator>

#include "message/rep.h"

namespace kl::container {

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

// The object of a value in bytes and, of an array, the number of its elements.
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
std::vector<Element> decodedElements(const unsigned char* at, std::size_t count) {
  std::vector<Element> v(count);
  for (Element& element : v) {
    const std::size_t bytes = loadLe16(at);
    if constexpr (std::is_same_v<Element, std::string>)
      element.assign(reinterpret_cast<const char*>(at + 2), bytes);
    else element = Element(at + 2, at + 2 + bytes);
    at += 2 + bytes;
  }
  return v;
}
template <class Element>
requires requires(Element e) { e.size(); }
struct Decoded<std::vector<Element>> {
  static std::vector<Element> from(const unsigned char* at, std::size_t, std::size_t count) {
    return decodedElements<Element>(at, count);
  }
};
// Compiled to be fast for the reference getter too.
std::vector<kl::message::flat_message> decodedMessages(const unsigned char* at, std::size_t count);
template <>
struct Decoded<std::vector<kl::message::flat_message>> {
  static std::vector<kl::message::flat_message> from(const unsigned char* at, std::size_t,
                                                     std::size_t count) {
    return decodedMessages(at, count);
  }
};

// A copy of a whole object.  No getter of a value that lies in bytes has the code for it.
template <class Value>
[[gnu::cold]] Value copied(const Value& object);

template <Kind k>
Object<k> valueOf(const Node& node) {
  if (const Object<k>* object = node.objectIfAny<k>(); object != nullptr) return copied(*object);
  return Decoded<Object<k>>::from(node.content(), node.size, node.count);
}

#define KL_VALUES_OF(how, kind) how Object<kind> valueOf<kind>(const Node&);
#define KL_COMMON_VALUES(how)       \
  KL_VALUES_OF(how, Kind::string)   \
  KL_VALUES_OF(how, Kind::message)  \
  KL_VALUES_OF(how, Kind::raw)      \
  KL_VALUES_OF(how, Kind::u32Array) \
  KL_VALUES_OF(how, Kind::messageArray)
#define KL_OTHER_VALUES(how)           \
  KL_VALUES_OF(how, Kind::boolArray)   \
  KL_VALUES_OF(how, Kind::u64Array)    \
  KL_VALUES_OF(how, Kind::addr6Array)  \
  KL_VALUES_OF(how, Kind::stringArray) \
  KL_VALUES_OF(how, Kind::rawArray)
KL_COMMON_VALUES(extern template)
KL_OTHER_VALUES(extern template)

}  // namespace kl::container

namespace kl {

template <message::Rep::Kind k>
void message::Rep::putObject(unsigned int id, const container::Object<k>& v) {
  Node* node = nullptr;
  if (container::fitsBytes(v)) node = add(k, id, container::encodedSize(v), container::elementCount(v));
  if (node == nullptr) return replaceWithObject(k, id, &v);
  container::encode(node->room(), v);
}

#define KL_PUT_OF(how, kind) \
  how void message::Rep::putObject<kind>(unsigned int, const container::Object<kind>&);
#define KL_COMMON_PUTS(how)                 \
  KL_PUT_OF(how, container::Kind::string)   \
  KL_PUT_OF(how, container::Kind::message)  \
  KL_PUT_OF(how, container::Kind::raw)      \
  KL_PUT_OF(how, container::Kind::u32Array) \
  KL_PUT_OF(how, container::Kind::messageArray)
#define KL_OTHER_PUTS(how)                     \
  KL_PUT_OF(how, container::Kind::boolArray)   \
  KL_PUT_OF(how, container::Kind::u64Array)    \
  KL_PUT_OF(how, container::Kind::addr6Array)  \
  KL_PUT_OF(how, container::Kind::stringArray) \
  KL_PUT_OF(how, container::Kind::rawArray)
KL_COMMON_PUTS(extern template)
KL_OTHER_PUTS(extern template)

}  // namespace kl
