#pragma once
// commands.h: what a client is told on its standard input and answers on its standard output.  Both the
// client on the library and the one on bare sockets understand it.

#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace bench {

enum class Task : unsigned int {
  kRoundTrip,             // a request, then its reply, and so on
  kRoundTripWithTimeout,  // the same with a limit of 5 seconds
  kOutstanding,           // `window` requests are always open
  kFanOut,                // one frame to every member, until the last of them has it
  kFanOutToAll,           // the same, addressed to everybody
  kConnect,               // connect, one exchange, disconnect
};

struct Command {
  Task task;
  unsigned int times;
  unsigned int window;        // kOutstanding
  unsigned int payloadBytes;  // beside the small fields; 0 for none
};

struct Answer {
  double nanoseconds;                     // for all of it
  unsigned int requestBytes, replyBytes;  // of one frame, its length included
};

class Stopwatch {
 public:
  double nanoseconds() const {
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin_).count();
  }

 private:
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

// Commands, answers and single bytes are below the size that a pipe passes on in one piece.
template <class T>
bool readWhole(int fd, T& value) {
  return ::read(fd, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value));
}

template <class T>
void writeWhole(int fd, const T& value) {
  if (::write(fd, &value, sizeof(value)) != static_cast<ssize_t>(sizeof(value))) std::_Exit(1);
}

}  // namespace bench
