#pragma once
// kind.h: the kinds of values that list nodes hold, and how the values of each lie in bytes.
//
// In memory a value has the same bytes as in the format, so writing and reading it is one copy:
//
//     string, message, raw             the bytes
//     bool array                       a byte an element, 0 or 1
//     u32, u64, addr6 array            4, 8, 16 bytes an element, little-endian, addresses as they are
//     string, message, raw array       each element a 2-byte little-endian length and its bytes
//
// The length and count in front of these, where the format has one, are not part of the value.  u64 and
// addr6 values lie as the host has them, because pointers to them are handed out.  An array with an element
// above 65535 bytes cannot lie in bytes and stays an object.

#include <climits>
#include <cstddef>
#include <string>
#include <vector>

#include "base/byte_order.h"
#include "kl/message.h"

namespace kl::container {

// Bits 31..27 of an id.  A node remembers the kind of the operation that made it.
enum class Kind : unsigned char {
  boolean = 0,
  u32 = 1,
  u64 = 2,
  addr6 = 3,
  string = 4,
  message = 5,
  raw = 6,
  boolArray = 16,
  u32Array = 17,
  u64Array = 18,
  addr6Array = 19,
  stringArray = 20,
  messageArray = 21,
  rawArray = 22,
};

constexpr Kind kindOf(unsigned int id) { return static_cast<Kind>(id >> 27); }
constexpr bool isArray(Kind kind) { return static_cast<unsigned char>(kind) >= 16; }
constexpr bool isPlainValue(Kind kind) { return kind == Kind::u64 || kind == Kind::addr6; }
// The array's elements have lengths of their own.
constexpr bool hasLongElements(Kind kind) { return kind >= Kind::stringArray; }
// Needs: an array of elements of one size.
constexpr std::size_t elementBytes(Kind kind) {
  return kind == Kind::boolArray ? 1 : kind == Kind::u32Array ? 4 : kind == Kind::u64Array ? 8 : 16;
}

using Bytes = std::vector<unsigned char>;

template <Kind kind>
struct ObjectOf;
// clang-format off
template <> struct ObjectOf<Kind::u64> { using type = unsigned long long; };
template <> struct ObjectOf<Kind::addr6> { using type = IPAddr6; };
template <> struct ObjectOf<Kind::string> { using type = std::string; };
template <> struct ObjectOf<Kind::message> { using type = kl::message::flat_message; };
template <> struct ObjectOf<Kind::raw> { using type = Bytes; };
template <> struct ObjectOf<Kind::boolArray> { using type = std::vector<bool>; };
template <> struct ObjectOf<Kind::u32Array> { using type = std::vector<unsigned int>; };
template <> struct ObjectOf<Kind::u64Array> { using type = std::vector<unsigned long long>; };
template <> struct ObjectOf<Kind::addr6Array> { using type = std::vector<IPAddr6>; };
template <> struct ObjectOf<Kind::stringArray> { using type = std::vector<std::string>; };
template <> struct ObjectOf<Kind::messageArray> { using type = std::vector<kl::message::flat_message>; };
template <> struct ObjectOf<Kind::rawArray> { using type = std::vector<Bytes>; };
// clang-format on
template <Kind kind>
using Object = typename ObjectOf<kind>::type;

// Calls f with the kind as a constant.  Needs: one that may become an object.
template <class F>
void withObjectKind(Kind kind, F f) {
  switch (kind) {
    case Kind::string: return f.template operator()<Kind::string>();
    case Kind::message: return f.template operator()<Kind::message>();
    case Kind::raw: return f.template operator()<Kind::raw>();
    case Kind::boolArray: return f.template operator()<Kind::boolArray>();
    case Kind::u32Array: return f.template operator()<Kind::u32Array>();
    case Kind::u64Array: return f.template operator()<Kind::u64Array>();
    case Kind::addr6Array: return f.template operator()<Kind::addr6Array>();
    case Kind::stringArray: return f.template operator()<Kind::stringArray>();
    case Kind::messageArray: return f.template operator()<Kind::messageArray>();
    default: return f.template operator()<Kind::rawArray>();
  }
}

// --- The bytes of one element --------------------------------------------------------------------------

inline const unsigned char* asBytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
inline const unsigned char* asBytes(const Bytes& bytes) { return bytes.data(); }

inline std::size_t encodedSize(const std::string& v) { return v.size(); }
inline std::size_t encodedSize(const Bytes& v) { return v.size(); }
inline std::size_t encodedSize(const std::vector<bool>& v) { return v.size(); }
inline std::size_t encodedSize(const std::vector<unsigned int>& v) { return 4 * v.size(); }
inline std::size_t encodedSize(const std::vector<unsigned long long>& v) { return 8 * v.size(); }
inline std::size_t encodedSize(const std::vector<IPAddr6>& v) { return 16 * v.size(); }
template <class Element>
std::size_t encodedSize(const std::vector<Element>& v) {
  std::size_t bytes = 2 * v.size();
  for (const Element& element : v) bytes += element.size();
  return bytes;
}

// May the value lie in bytes?
template <class Value>
bool fitsBytes(const Value& v) {
  if constexpr (requires { v.front().size(); })
    for (const auto& element : v)
      if (element.size() > 0xFFFF) return false;
  return encodedSize(v) < INT_MAX;
}

template <class Value>
std::size_t elementCount(const Value& v) {
  return v.size();
}

// Each writes the bytes of a value and returns the place behind them.
inline unsigned char* encode(unsigned char* to, const unsigned char* from, std::size_t n) {
  copyBytes(to, from, n);
  return to + n;
}
inline unsigned char* encode(unsigned char* to, const std::string& v) {
  return encode(to, asBytes(v), v.size());
}
inline unsigned char* encode(unsigned char* to, const Bytes& v) { return encode(to, asBytes(v), v.size()); }
inline unsigned char* encode(unsigned char* to, const std::vector<bool>& v) {
  for (const bool element : v) *to++ = element ? 1 : 0;
  return to;
}
inline unsigned char* encode(unsigned char* to, const std::vector<unsigned int>& v) {
  for (const unsigned int element : v) to = storeLe32(to, element);
  return to;
}
inline unsigned char* encode(unsigned char* to, const std::vector<unsigned long long>& v) {
  for (const unsigned long long element : v) to = storeLe64(to, element);
  return to;
}
inline unsigned char* encode(unsigned char* to, const std::vector<IPAddr6>& v) {
  for (const IPAddr6& element : v) to = encode(to, element.bytes, sizeof element.bytes);
  return to;
}
template <class Element>
unsigned char* encode(unsigned char* to, const std::vector<Element>& v) {
  for (const Element& element : v) to = encode(storeLe16(to, element.size()), element);
  return to;
}

// The bytes of a value as they come from outside.  Any byte but 0 is true, and 1 once it is ours.
inline void copyValue(Kind kind, unsigned char* to, const unsigned char* from, std::size_t n) {
  if (kind != Kind::boolArray) return copyBytes(to, from, n);
  for (std::size_t i = 0; i < n; ++i) to[i] = from[i] != 0 ? 1 : 0;
}

}  // namespace kl::container
