#pragma once
// pipe.h: byte strings between klctl and its courier, over a socket pair.

#include <chrono>
#include <optional>
#include <vector>

namespace klctl {

using Bytes = std::vector<unsigned char>;
using Deadline = std::optional<std::chrono::steady_clock::time_point>;  // none: waits without limit

enum class Received { kWhole, kEnded, kLate };

// Sends one byte string.  False when the other side is gone.
bool sendBytes(int fd, const Bytes& bytes);

// Receives one byte string whole; what it held before is lost in any case.
Received receiveBytes(int fd, Bytes& bytes, const Deadline& deadline);

}  // namespace klctl
