#pragma once
// rewrite.h: the form in which a frame is delivered.

#include <vector>

#include "routing/envelope.h"
#include "transport/buffer.h"

namespace loader {

// The records that replace SYS_USER and SYS_POLICY in the requests of a sender; none for one with all rights.
using RightsRecords = std::vector<unsigned char>;

// Appends the whole frame, length prefix included, as the receiver gets it: the path is `rest`, the return path
// begins with `senderId`, and in a command the rights are replaced by `rights` unless that is empty.  Everything
// else passes as it came.  Returns the number of bytes appended.
std::size_t appendDelivered(Buffer& out, const Envelope& envelope, Path rest, unsigned int senderId,
                            const RightsRecords& rights);

}  // namespace loader
