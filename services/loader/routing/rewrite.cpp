// A record keeps its place in the frame, so most bytes are copied in two or three pieces:
//
//     length | M2 ... | SYS_TO, first hop cut | ... | SYS_FROM, sender in front | ... | rights
//
// Records to remove are left out between two pieces, missing ones are appended at the end.

#include "routing/rewrite.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "kl/conventions.h"
#include "services/common/byte_order.h"

namespace loader {
namespace {

constexpr std::size_t kArrayHeaderBytes = 6;
constexpr std::size_t kNumberBytes = 8;  // of a number's record, in its long form

// Writes into room that is known to suffice.
class Writer {
 public:
  explicit Writer(unsigned char* at) : at_(at) {}

  void bytes(std::span<const unsigned char> source) {
    if (!source.empty()) std::memcpy(at_, source.data(), source.size());
    at_ += source.size();
  }
  void u16(unsigned int value) { at_ = common::storeLe16(at_, value); }
  void u32(unsigned int value) { at_ = common::storeLe32(at_, value); }

  void policy(unsigned int bits) {
    u32(kl::SYS_POLICY);
    u32(bits);
  }
  void path(Path path) {
    u32(kl::SYS_TO);
    u16(path.size());
    bytes(path.bytes());
  }
  void returnPath(unsigned int senderId, Path rest) {
    u32(kl::SYS_FROM);
    u16(rest.size() + 1);
    u32(senderId);
    bytes(rest.bytes());
  }

 private:
  unsigned char* at_;
};

// The records that do not pass as they came, in the order in which they stand.
class Touched {
 public:
  void add(const kl::Record& record) {
    if (record.bytes().empty()) return;
    records_[size_++] = &record;
    for (std::size_t i = size_ - 1; i > 0 && at(i) < at(i - 1); --i) std::swap(records_[i], records_[i - 1]);
  }
  const kl::Record* const* begin() const { return records_.data(); }
  const kl::Record* const* end() const { return records_.data() + size_; }

 private:
  const unsigned char* at(std::size_t index) const { return records_[index]->bytes().data(); }

  std::array<const kl::Record*, 4> records_{};
  std::size_t size_ = 0;
};

std::size_t deliveredBytes(const Envelope& e, Path rest, const RightsMark& mark) {
  std::size_t size = e.body.size() - e.to.bytes().size() + kArrayHeaderBytes + rest.bytes().size();
  size += e.from.bytes().empty() ? kArrayHeaderBytes + 4 : 4;
  if (mark.replaces) size -= e.user.bytes().size() + e.policy.bytes().size();
  return size + mark.records.size() + (mark.addsPolicy ? kNumberBytes : 0);
}

}  // namespace

std::size_t appendDelivered(Buffer& out, const Envelope& e, Path rest, unsigned int senderId,
                            const RightsMark& mark) {
  const std::size_t size = deliveredBytes(e, rest, mark);
  Touched touched;
  touched.add(e.to);
  touched.add(e.from);
  if (mark.replaces) {
    touched.add(e.user);
    touched.add(e.policy);
  }

  Writer writer(out.grow(kl::FRAME_PREFIX_BYTES + size));
  writer.u32(static_cast<unsigned int>(size));
  const unsigned char* copied = e.body.data();
  for (const kl::Record* record : touched) {
    writer.bytes({copied, record->bytes().data()});
    if (record == &e.to) writer.path(rest);
    else if (record == &e.from) writer.returnPath(senderId, e.returnPath());
    copied = record->bytes().data() + record->bytes().size();
  }
  writer.bytes({copied, e.body.data() + e.body.size()});
  if (e.from.bytes().empty()) writer.returnPath(senderId, Path());
  writer.bytes(mark.records);
  if (mark.addsPolicy) writer.policy(mark.policy);
  return kl::FRAME_PREFIX_BYTES + size;
}

}  // namespace loader
