// Bytes from anywhere are read as a message of the older format.
//
//   - what was read, fault or not, can be flattened in the newer format and read again as an equal message
//   - reading the same bytes once more doubles every array and leaves every other field as it is, be the arrays held
//     as bytes or as objects

#include "fuzz/input.h"
#include "kl/records.h"
#include "message/rep.h"

namespace {

using fuzz::Bytes;
using fuzz::require;
using kl::message;

bool read(message& m, const Bytes& bytes) {
  return m.unflatten(bytes.data(), static_cast<unsigned int>(bytes.size()), message::normal);
}

void makeObject(message& m, const kl::Record& record) {
  switch (record.kind()) {
    case kl::RecordKind::kBool: (void)m.get_bool_array_ref(record.id()); break;
    case kl::RecordKind::kU32: (void)m.get_u32_array_ref(record.id()); break;
    case kl::RecordKind::kString: (void)m.get_string_array_ref(record.id()); break;
    case kl::RecordKind::kMessage: (void)m.get_message_array_ref(record.id()); break;
    default: (void)m.get_raw_array_ref(record.id()); break;
  }
}

unsigned int elementsOf(const message& m, const kl::Record& record) {
  switch (record.kind()) {
    case kl::RecordKind::kBool: return m.size_bool_array(record.id());
    case kl::RecordKind::kU32: return m.size_unsigned_array(record.id());
    case kl::RecordKind::kString: return m.size_string_array(record.id());
    case kl::RecordKind::kMessage: return m.size_message_array(record.id());
    default: return m.size_raw_array(record.id());
  }
}

void checkReadingTwice(const message& once, const Bytes& bytes, bool asObjects) {
  const Bytes before = once.flattened();
  message twice(once);
  kl::RecordWalk objects(before);
  for (kl::Record record; asObjects && objects.next(record);)
    if (record.isArray()) makeObject(twice, record);
  (void)read(twice, bytes);
  kl::RepAccess::read(twice).check();
  require(twice.flattened().size() <= twice.max_length(), "max_length() bounds the flattened form");
  kl::RecordWalk walk(before);
  std::size_t fields = 0;
  for (kl::Record record; walk.next(record); ++fields)
    if (record.isArray())
      require(elementsOf(twice, record) == 2 * record.count(), "elements join those there");
  require(walk.ok(), "what is written is well-formed");
  const Bytes after = twice.flattened();
  kl::RecordWalk all(after);
  for (kl::Record record; all.next(record);) --fields;
  require(fields == 0, "no field comes or goes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes bytes(data, data + std::min<std::size_t>(size, 0x4000));
  if (bytes.size() < 2) return 0;
  bytes[1] = 0;  // what makes it the older format
  message m;
  (void)read(m, bytes);
  kl::RepAccess::read(m).check();
  message again;
  require(read(again, m.flattened()), "what was read can be written and read");
  require(again == m, "it reads as an equal message");
  checkReadingTwice(m, bytes, false);
  checkReadingTwice(m, bytes, true);
  return 0;
}
