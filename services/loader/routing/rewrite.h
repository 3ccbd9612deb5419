#pragma once
// rewrite.h: the form in which a frame is delivered.

#include <vector>

#include "routing/envelope.h"
#include "transport/buffer.h"

namespace loader {

// Records of SYS_USER and SYS_POLICY, as they stand in a frame.
using RightsRecords = std::vector<unsigned char>;

// The change to the rights in a frame: these records are added, and SYS_USER and SYS_POLICY of the sender go.
// Without either the frame keeps what it carries.  A SYS_POLICY that was worked out for this frame alone stands in
// `policy`, and not among the records.
struct RightsMark {
  std::span<const unsigned char> records;
  bool replaces = false;
  bool addsPolicy = false;
  unsigned int policy = 0;
};

// The bytes of the body as the receiver gets it, at most: a return path and a number may be new.
inline std::size_t mostDelivered(const Envelope& envelope, const RightsMark& mark) {
  constexpr std::size_t kMostAdded = 10 + 8;
  return envelope.body.size() + kMostAdded + mark.records.size();
}

// Appends the whole frame, length prefix included, as the receiver gets it: the path is `rest`, the return path
// begins with `senderId`, and the rights are what `mark` says.  Everything else passes as it came.  Returns the number
// of bytes appended.
std::size_t appendDelivered(Buffer& out, const Envelope& envelope, Path rest, unsigned int senderId,
                            const RightsMark& mark);

}  // namespace loader
