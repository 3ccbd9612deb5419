// driver: does with kl::message what the cases on standard input say, and writes what came of it on standard
// output.  python/oracle.py does the same with the Python codec and compares.
//
// A case is its length in four bytes, little-endian, and its steps:
//
//     0, 1, 2   bytes          reads the bytes with that flatten type
//     3         id, bytes      inserts a field: the value's bytes; of an array those of its elements, each string,
//                              message or raw element with two bytes of length in front
//     4         id             removes a field
//     5                        writes the message and reads it into a new one
//
// where bytes are their number in four bytes and themselves.  A result is its length in four bytes and: a byte for each
// step, 1 where it was read well and 0 where it was not; a byte that says whether there are kept records, the kept
// records and the flattened message as bytes; a byte that says whether the message that is read from it is equal.

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kl/message.h"
#include "kl/records.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The steps of one case, from front to back.  Bytes beyond the end read as zeros.
class Steps {
 public:
  explicit Steps(const Bytes& bytes) : bytes_(bytes) {}

  bool isAtEnd() const { return at_ >= bytes_.size(); }
  unsigned char byte() { return isAtEnd() ? 0 : bytes_[at_++]; }
  unsigned int number() {
    unsigned int number = 0;
    for (int shift = 0; shift < 32; shift += 8) number |= static_cast<unsigned int>(byte()) << shift;
    return number;
  }
  Bytes bytes() {
    Bytes taken(number());
    for (unsigned char& b : taken) b = byte();
    return taken;
  }

 private:
  const Bytes& bytes_;
  std::size_t at_ = 0;
};

template <class T>
T numberOf(const unsigned char* at) {
  unsigned long long number = kl::readLe32(at);
  if (sizeof(T) == 8) number |= static_cast<unsigned long long>(kl::readLe32(at + 4)) << 32;
  return static_cast<T>(number);
}

kl::IPAddr6 addressOf(const unsigned char* at) {
  kl::IPAddr6 address;
  std::memcpy(address.bytes, at, sizeof address.bytes);
  return address;
}

template <class T, class Convert>
std::vector<T> fixedElements(const Bytes& bytes, std::size_t size, Convert convert) {
  std::vector<T> elements;
  for (std::size_t at = 0; at + size <= bytes.size(); at += size)
    elements.push_back(convert(bytes.data() + at));
  return elements;
}

template <class T>
std::vector<T> elementsWithLength(const Bytes& bytes) {
  std::vector<T> elements;
  for (std::size_t at = 0; at + 2 <= bytes.size();) {
    const std::size_t length = kl::readLe16(bytes.data() + at);
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at + 2);
    elements.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(length));
    at += 2 + length;
  }
  return elements;
}

void insertArray(kl::message& m, unsigned int id, const Bytes& value) {
  switch (static_cast<kl::RecordKind>(id >> 27 & 15)) {
    case kl::RecordKind::kBool:
      return m.insert_bool_array(id, fixedElements<bool>(value, 1, [](auto* at) { return *at != 0; }));
    case kl::RecordKind::kU32:
      return m.insert_u32_array(id, fixedElements<unsigned int>(value, 4, numberOf<unsigned int>));
    case kl::RecordKind::kU64:
      return m.insert_u64_array(id,
                                fixedElements<unsigned long long>(value, 8, numberOf<unsigned long long>));
    case kl::RecordKind::kAddr6:
      return m.insert_addr6_array(id, fixedElements<kl::IPAddr6>(value, 16, addressOf));
    case kl::RecordKind::kString: return m.insert_string_array(id, elementsWithLength<std::string>(value));
    case kl::RecordKind::kMessage:
      return m.insert_message_array(id, elementsWithLength<kl::message::flat_message>(value));
    case kl::RecordKind::kRaw: return m.insert_raw_array(id, elementsWithLength<Bytes>(value));
  }
}

void insert(kl::message& m, unsigned int id, const Bytes& value) {
  if ((id & 0x80000000) != 0) return insertArray(m, id, value);
  switch (static_cast<kl::RecordKind>(id >> 27 & 15)) {
    case kl::RecordKind::kBool: return m.insert_bool(id, value.at(0) != 0);
    case kl::RecordKind::kU32: return m.insert_u32(id, numberOf<unsigned int>(value.data()));
    case kl::RecordKind::kU64: return m.insert_u64(id, numberOf<unsigned long long>(value.data()));
    case kl::RecordKind::kAddr6: return m.insert_addr6(id, addressOf(value.data()));
    case kl::RecordKind::kString: return m.insert_string(id, std::string(value.begin(), value.end()));
    case kl::RecordKind::kMessage: return m.insert_message(id, kl::message::flat_message(value));
    case kl::RecordKind::kRaw: return m.insert_raw(id, value);
  }
}

void remove(kl::message& m, unsigned int id) {
  if ((id & 0x80000000) != 0) return m.remove_array(id);
  switch (static_cast<kl::RecordKind>(id >> 27 & 15)) {
    case kl::RecordKind::kBool: return m.remove_bool(id);
    case kl::RecordKind::kU32: return m.remove_u32(id);
    default: return m.remove_field(id);
  }
}

// Does the next step; false where bytes were no message.
bool doStep(kl::message& m, Steps& steps) {
  const unsigned char step = steps.byte();
  if (step < 3) {
    const Bytes bytes = steps.bytes();
    static const unsigned char none = 0;
    const unsigned char* data = bytes.empty() ? &none : bytes.data();
    return m.unflatten(data, static_cast<unsigned int>(bytes.size()),
                       static_cast<kl::message::flatten_type>(step));
  }
  if (step == 5) {
    Bytes bytes;
    m.flatten(bytes);
    kl::message fresh;
    const bool isGood =
        fresh.unflatten(bytes.data(), static_cast<unsigned int>(bytes.size()), kl::message::normal);
    m.swap(fresh);
    return isGood;
  }
  const unsigned int id = steps.number();
  if (step == 3) {
    insert(m, id, steps.bytes());
  } else {
    remove(m, id);
  }
  return true;
}

void append(Bytes& out, unsigned int number) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<unsigned char>(number >> shift));
}

void append(Bytes& out, const Bytes& bytes) {
  append(out, static_cast<unsigned int>(bytes.size()));
  out.insert(out.end(), bytes.begin(), bytes.end());
}

Bytes resultOf(const Bytes& bytes) {
  Bytes result;
  kl::message m;
  for (Steps steps(bytes); !steps.isAtEnd();) result.push_back(doStep(m, steps) ? 1 : 0);
  result.push_back(m.kept() != nullptr ? 1 : 0);
  append(result, m.kept() != nullptr ? *m.kept() : Bytes());
  Bytes flat;
  m.flatten(flat);
  append(result, flat);
  result.push_back(kl::message(flat) == m ? 1 : 0);
  return result;
}

bool readExactly(unsigned char* bytes, std::size_t count) {
  return std::fread(bytes, 1, count, stdin) == count;
}

}  // namespace

int main() {
  unsigned char head[4];
  while (readExactly(head, sizeof head)) {
    Bytes bytes(kl::readLe32(head));
    if (!readExactly(bytes.data(), bytes.size())) return 1;
    const Bytes result = resultOf(bytes);
    Bytes out;
    append(out, result);
    if (std::fwrite(out.data(), 1, out.size(), stdout) != out.size()) return 1;
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}
