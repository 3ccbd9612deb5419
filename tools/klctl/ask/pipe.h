#pragma once
// pipe.h: byte strings between klctl and its courier, over a socket pair.

#include <poll.h>

#include <chrono>
#include <optional>
#include <vector>

namespace klctl {

using Bytes = std::vector<unsigned char>;
using Deadline = std::optional<std::chrono::steady_clock::time_point>;  // none: no limit

enum class Received { kWhole, kEnded, kLate };

// Waits until one of the descriptors is readable, or until the deadline.  False when none is.
bool waitReadable(pollfd* watched, nfds_t count, const Deadline& deadline);

// Sends one byte string.  False when the other side is gone.
bool sendBytes(int fd, const Bytes& bytes);

// Receives one byte string whole; what it held before is lost in any case.
Received receiveBytes(int fd, Bytes& bytes, const Deadline& deadline);

}  // namespace klctl
