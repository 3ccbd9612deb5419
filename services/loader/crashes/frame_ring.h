#pragma once
// frame_ring.h: the headers of the last messages that passed.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "kl/message.h"
#include "services/common/byte_order.h"
#include "services/common/descriptor.h"
#include "services/common/seconds.h"
#include "services/common/tap.h"

namespace loader {

// What became of a message; of one to all, the first of these that befell a copy.
enum class Fate : unsigned char {
  kPassed = 0,                         // into the queue of its receiver, or of the loader itself
  kHeld = common::tap::HELD,           // for a receiver that is being started
  kDenied = common::tap::DENIED,       // its sender lacks a right
  kBusy = common::tap::REFUSED,        // refused, as its receiver or the reply had no room
  kLost = common::tap::DROPPED,        // dropped, as its receiver had no room
  kStray = common::tap::UNASKED,       // a reply that nobody waits for
  kNobody = common::tap::NO_RECEIVER,  // no such receiver
};

// What the ring keeps of a message.
struct FrameHeader {
  enum Kind : unsigned char {
    kReply = 1,
    kError = 2,      // `code` is its error
    kControl = 4,    // `code` is that of the control message
    kCommand = 8,    // `code` is its command, unless it is one of the three above
    kNumbered = 16,  // `requestId` is its number
    kByLoader = 32,  // the loader wrote it
  };

  unsigned int from = 0;
  unsigned int to = 0;
  unsigned int code = 0;
  unsigned int requestId = 0;
  unsigned int bytes = 0;
  unsigned char kind = 0;
};

// The last messages, in a file in memory that ends with the process.  Records of 32 bytes, each at the place that its
// number has modulo kRecords, with the low byte of each number first:
//
//      0 seconds   4 milliseconds (2)   6 kind (1)   7 fate (1)   8 from   12 to   16 code   20 number of the request
//     24 bytes    28 number of the record, from 1 on; 0: none yet
//
// The moment is one of the monotonic clock, and is that of the reading which brought the message.
//
// Errors:    without a file in memory the records are in ordinary memory.
// Ownership: owns its memory.
// Threads:   belongs to one thread.
// Cost:      some twenty instructions for a message; no clock is read and nothing is allocated.
class FrameRing {
 public:
  static constexpr std::size_t kBytes = std::size_t{64} * 1024;
  static constexpr std::size_t kRecordBytes = 32;
  static constexpr unsigned int kRecords = kBytes / kRecordBytes;
  using Number = unsigned int;
  static constexpr Number kNone = 0;

  FrameRing();
  FrameRing(const FrameRing&) = delete;
  FrameRing& operator=(const FrameRing&) = delete;
  ~FrameRing();

  void setNow(common::Moment now) { now_ = now; }

  // The number of the new record.
  Number add(const FrameHeader& header) {
    const Number number = ++last_;
    unsigned char* at = recordOf(number);
    at = common::storeLe32(at, now_.seconds);
    at = common::storeLe16(at, now_.milliseconds);
    *at++ = header.kind;
    *at++ = static_cast<unsigned char>(Fate::kPassed);
    at = common::storeLe32(at, header.from);
    at = common::storeLe32(at, header.to);
    at = common::storeLe32(at, header.code);
    at = common::storeLe32(at, header.requestId);
    at = common::storeLe32(at, header.bytes);
    (void)common::storeLe32(at, number);
    return number;
  }

  // That became of the message.  What was said of it first stays, and of a record that has been overwritten nothing is
  // said.
  void setFate(Number number, Fate fate) {
    if (!has(number)) return;
    unsigned char* const at = recordOf(number) + kFateAt;
    if (*at == static_cast<unsigned char>(Fate::kPassed)) *at = static_cast<unsigned char>(fate);
  }

  // The last ones that a service has sent or was sent, at most so many, the oldest first, as objects
  // (services/common/tap.h).
  std::vector<kl::message::flat_message> messagesOf(unsigned int service, std::size_t most) const;

  const unsigned char* bytes() const { return records_; }

 private:
  static constexpr std::size_t kFateAt = 7;

  unsigned char* recordOf(Number number) const { return records_ + number % kRecords * kRecordBytes; }
  bool has(Number number) const { return number != kNone && last_ - number < kRecords; }

  common::Descriptor file_;
  std::unique_ptr<unsigned char[]> ordinary_;  // instead of the file
  unsigned char* records_ = nullptr;
  Number last_ = kNone;
  common::Moment now_;
};

}  // namespace loader
