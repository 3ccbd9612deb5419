#include "bench/message/product.h"

namespace bench::product {
namespace {

using flat_message = kl::message::flat_message;

const std::string kNoText;
const std::vector<unsigned char> kNoBytes;
const flat_message kNoMessage;

template <class Bytes>
unsigned long long ends(const Bytes& bytes) {
  return bytes.size() + static_cast<unsigned char>(bytes.front()) + static_cast<unsigned char>(bytes.back());
}

unsigned long long ends(const kl::IPAddr6& address) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&address);
  return sizeof(address) + bytes[0] + bytes[sizeof(address) - 1];
}

template <class Path>
unsigned long long sumOf(const Path& path) {
  unsigned long long sum = path.size();
  for (const unsigned int hop : path) sum += hop;
  return sum;
}

template <class Message>
unsigned long long readW1Numbers(const Message& in) {
  unsigned long long sum = in.get_u32(id::kType, 0);
  sum += in.get_u32(id::kRequestId, 0);
  sum += in.get_u32(id::kCommand, 0);
  sum += in.get_u32(id::kPolicy, 0);
  sum += in.get_u32(id::kObject, 0);
  sum += in.get_u32(id::kSpeed, 0);
  return sum + (in.get_bool(id::kReplyExpected, false) ? 1 : 0);
}

template <class Message>
unsigned long long readW2Numbers(const Message& in) {
  unsigned long long sum = in.get_u64(id::kBytesIn, 0);
  for (unsigned int i = 0; i < 8; ++i) sum += in.get_u32(id::kNumber + i, 0);
  for (unsigned int i = 0; i < 4; ++i) sum += in.get_bool(id::kFlag + i, false) ? 1 : 0;
  return sum + ends(in.get_addr6(id::kAddress));
}

flat_message flattened(const W2Source& source) {
  kl::message object;
  build(object, source);
  flat_message bytes;
  object.flatten(bytes);
  return bytes;
}

}  // namespace

void build(kl::message& out, const W1Source& source) {
  out.insert_u32_array(id::kTo, source.to);
  out.insert_u32_array(id::kFrom, source.from);
  out.insert_u32(id::kType, source.type);
  out.insert_u32(id::kRequestId, source.requestId);
  out.insert_u32(id::kCommand, source.command);
  out.insert_u32(id::kPolicy, source.policy);
  out.insert_u32(id::kObject, source.object);
  out.insert_u32(id::kSpeed, source.speed);
  out.insert_bool(id::kReplyExpected, source.replyExpected);
  out.insert_string(id::kUser, source.user);
}

void build(kl::message& out, const W2Source& source) {
  for (unsigned int i = 0; i < 8; ++i) out.insert_u32(id::kNumber + i, source.numbers[i]);
  for (unsigned int i = 0; i < 4; ++i) out.insert_bool(id::kFlag + i, source.flags[i]);
  for (unsigned int i = 0; i < 4; ++i) out.insert_string(id::kText + i, source.texts[i]);
  out.insert_u64(id::kBytesIn, source.bytesIn);
  out.insert_addr6(id::kAddress, source.address);
  out.insert_raw(id::kKey, source.key);
  kl::message origin;
  build(origin, source.origin);
  out.insert_message(id::kOrigin, origin);
}

void build(kl::message& out, const std::vector<W2Source>& source) {
  std::vector<flat_message> objects;
  objects.reserve(source.size());
  for (const W2Source& object : source) objects.push_back(flattened(object));
  out.insert_message_array(id::kObjects, objects);
}

void build(kl::message& out, const std::vector<std::string>& source) {
  unsigned int field = id::kFlat;
  for (const std::string& text : source) out.insert_string(field++, text);
}

unsigned long long readW1(const kl::message& in) {
  return readW1Numbers(in) + sumOf(in.get_u32_array(id::kTo)) + sumOf(in.get_u32_array(id::kFrom)) +
         ends(in.get_string(id::kUser, kNoText));
}

unsigned long long readW2(const kl::message& in) {
  unsigned long long sum = readW2Numbers(in);
  for (unsigned int i = 0; i < 4; ++i) sum += ends(in.get_string(id::kText + i, kNoText));
  sum += ends(in.get_raw(id::kKey, kNoBytes));
  return sum + readW1(kl::message(in.get_message(id::kOrigin, kNoMessage)));
}

unsigned long long readW3(const kl::message& in) {
  const std::vector<flat_message> objects = in.get_message_array(id::kObjects);
  unsigned long long sum = objects.size();
  for (const flat_message& object : objects) sum += readW2(kl::message(object));
  return sum;
}

unsigned long long readFlat(const kl::message& in, unsigned int fields) {
  unsigned long long sum = 0;
  for (unsigned int i = 0; i < fields; ++i) sum += ends(in.get_string(id::kFlat + i, kNoText));
  return sum;
}

unsigned long long readW1ByReference(const kl::message& in) {
  return readW1Numbers(in) + sumOf(*in.get_u32_array_ref(id::kTo)) + sumOf(*in.get_u32_array_ref(id::kFrom)) +
         ends(*in.get_string_ref(id::kUser));
}

unsigned long long readW2ByReference(const kl::message& in) {
  unsigned long long sum = readW2Numbers(in);
  for (unsigned int i = 0; i < 4; ++i) sum += ends(*in.get_string_ref(id::kText + i));
  sum += ends(*in.get_raw_ref(id::kKey));
  return sum + readW1ByReference(kl::message(*in.get_message_ref(id::kOrigin)));
}

unsigned long long readW3ByReference(const kl::message& in) {
  const std::vector<flat_message>& objects = *in.get_message_array_ref(id::kObjects);
  unsigned long long sum = objects.size();
  for (const flat_message& object : objects) sum += readW2ByReference(kl::message(object));
  return sum;
}

unsigned long long readFlatByReference(const kl::message& in, unsigned int fields) {
  unsigned long long sum = 0;
  for (unsigned int i = 0; i < fields; ++i) sum += ends(*in.get_string_ref(id::kFlat + i));
  return sum;
}

unsigned long long readW1ByView(const kl::message& in) {
  return readW1Numbers(in) + sumOf(in.view_u32_array(id::kTo)) + sumOf(in.view_u32_array(id::kFrom)) +
         ends(in.view_string(id::kUser, kNoText));
}

unsigned long long readW2ByView(const kl::message& in) {
  unsigned long long sum = readW2Numbers(in);
  for (unsigned int i = 0; i < 4; ++i) sum += ends(in.view_string(id::kText + i, kNoText));
  sum += ends(in.view_raw(id::kKey, kNoBytes));
  return sum + readW1(in.view_message(id::kOrigin));
}

// There is no getter in place for an array of messages.
unsigned long long readW3ByView(const kl::message& in) {
  const std::vector<flat_message>& objects = *in.get_message_array_ref(id::kObjects);
  unsigned long long sum = objects.size();
  for (const flat_message& object : objects) sum += readW2ByView(kl::message(object));
  return sum;
}

unsigned long long readFlatByView(const kl::message& in, unsigned int fields) {
  unsigned long long sum = 0;
  for (unsigned int i = 0; i < fields; ++i) sum += ends(in.view_string(id::kFlat + i, kNoText));
  return sum;
}

unsigned long long readW1(const kl::message_view& in) {
  return readW1Numbers(in) + sumOf(in.get_u32_array(id::kTo)) + sumOf(in.get_u32_array(id::kFrom)) +
         ends(in.get_string(id::kUser, kNoText));
}

unsigned long long readW2(const kl::message_view& in) {
  unsigned long long sum = readW2Numbers(in);
  for (unsigned int i = 0; i < 4; ++i) sum += ends(in.get_string(id::kText + i, kNoText));
  sum += ends(in.get_raw(id::kKey, kNoBytes));
  return sum + readW1(in.get_message(id::kOrigin));
}

unsigned long long readW3(const kl::message_view& in) {
  const auto objects = in.get_message_array(id::kObjects);
  unsigned long long sum = objects.size();
  for (const kl::message_view object : objects) sum += readW2(object);
  return sum;
}

unsigned long long readFlat(const kl::message_view& in, unsigned int fields) {
  unsigned long long sum = 0;
  for (unsigned int i = 0; i < fields; ++i) sum += ends(in.get_string(id::kFlat + i, kNoText));
  return sum;
}

}  // namespace bench::product
