// Bytes from anywhere are read as a message, with each flatten type.
//
//   - what was read, fault or not, is a whole message: flattened it takes at most max_length() bytes, and these
//     read back as an equal message
//   - kl::RecordWalk finds well-formed exactly what the reader finds well-formed, and the same values
//   - the bare form reads as the same bytes behind a magic; assign() gives what construction gives
//   - what keep_marked sets aside and what it reads are together all that was there

#include <set>

#include "fuzz/input.h"
#include "kl/records.h"
#include "message/rep.h"

namespace {

using fuzz::Bytes;
using fuzz::require;
using kl::message;

constexpr unsigned int kMark = 0x02000000;

unsigned int sizeOf(const Bytes& bytes) { return static_cast<unsigned int>(bytes.size()); }

bool read(message& m, const Bytes& bytes, message::flatten_type type) {
  return m.unflatten(bytes.data(), sizeOf(bytes), type);
}

bool hasValueOf(const message& m, const kl::Record& record) {
  const unsigned int id = record.id();
  if (record.isArray()) return m.has_array(id);
  switch (record.kind()) {
    case kl::RecordKind::kBool: return m.size_bool(id) == 1 && m.get_bool(id, false) == record.boolean();
    case kl::RecordKind::kU32: return m.size_u32(id) == 1 && m.get_u32(id, 0) == record.u32();
    case kl::RecordKind::kU64: return m.get_u64(id, ~0ULL) == record.u64();
    case kl::RecordKind::kString: return m.get_string(id, "?") == record.text();
    default: return m.size_field(id) == 1;
  }
}

// Calls f(record) for each record; whether the walk came to the end.
template <class Function>
bool walkAll(const Bytes& bytes, Function f) {
  kl::RecordWalk walk(bytes);
  for (kl::Record record; walk.next(record);) f(record);
  return walk.ok();
}

void checkRoundTrip(const message& m) {
  kl::RepAccess::read(m).check();
  const Bytes bytes = m.flattened();
  require(bytes.size() <= m.max_length(), "max_length() bounds the flattened form");
  message again;
  require(read(again, bytes, message::normal), "what is written can be read");
  require(again == m && m == again, "what is written reads as an equal message");
  require(again.flattened().size() == bytes.size(), "equal messages take equally many bytes");
  message clone(m);
  clone.clone();
  clone.merge(m);
  require(clone == m && clone.includes(m) && m.includes(clone), "a clone equals its original");
  require(walkAll(bytes, [&](const kl::Record& record) { require(hasValueOf(m, record), "same values"); }),
          "what is written is well-formed to the walk");
}

void checkAgainstWalk(const Bytes& bytes, const message& m, bool wasRead) {
  std::set<unsigned int> ids;
  const bool isWellFormed = walkAll(bytes, [&](const kl::Record& record) { ids.insert(record.id()); });
  require(isWellFormed == wasRead, "reader and walk agree on what is well-formed");
  if (!wasRead) return;
  std::size_t fields = 0;
  (void)walkAll(m.flattened(), [&](const kl::Record& record) {
    require(ids.contains(record.id()), "no field that was not there");
    ++fields;
  });
  require(fields == ids.size(), "every field that was there");
}

// Marked records of fixed length cannot be told from what follows them; they are no promise of this type.
bool mayNotBeMarked(const kl::Record& record) {
  return (record.id() & kMark) != 0 && (record.kind() == kl::RecordKind::kAddr6 ||
                                        (record.kind() == kl::RecordKind::kU64 && !record.isArray()));
}

void checkKept(const Bytes& bytes) {
  message m;
  const bool wasRead = read(m, bytes, message::keep_marked);
  checkRoundTrip(m);
  Bytes marked;
  Bytes others{0x4d, 0x32};
  bool isPromised = true;
  const bool isWellFormed = walkAll(bytes, [&](const kl::Record& record) {
    Bytes& to = (record.id() & kMark) != 0 ? marked : others;
    to.insert(to.end(), record.bytes().begin(), record.bytes().end());
    isPromised = isPromised && !mayNotBeMarked(record);
  });
  if (!isWellFormed || !isPromised) return;
  require(wasRead && m.kept() != nullptr && *m.kept() == marked, "marked records are kept as they came");
  require(m == message(others), "the other records are read");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes bytes(data, data + std::min<std::size_t>(size, 0x8000));
  message m;
  const bool wasRead = read(m, bytes, message::normal);
  checkRoundTrip(m);
  const bool isNewFormat = bytes.size() >= 2 && bytes[0] == 0x4d && bytes[1] == 0x32;
  if (isNewFormat) {
    checkAgainstWalk(bytes, m, wasRead);
    checkKept(bytes);
    message bare;
    require(bare.unflatten(bytes.data() + 2, sizeOf(bytes) - 2, message::bare) == wasRead && bare == m,
            "the bare form reads the same");
  } else {
    message bare;
    (void)read(bare, bytes, message::bare);
    checkRoundTrip(bare);
  }
  message assigned;
  assigned.insert_u32(0x08000001, 1);
  assigned.assign(bytes.data(), sizeOf(bytes));
  require(assigned == message(bytes), "assign() gives what construction gives");
  return 0;
}
