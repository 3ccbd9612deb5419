#pragma once
// scripted_socket.h: what the log client asks of the system, as an input of a test and counted.  The test program
// defines socket(), fcntl(), write(), writev() and usleep() itself; without a script they do what the system does.

#include <cstddef>
#include <deque>
#include <vector>

namespace kl::test {

// At most one at a time.  It sees writes to sockets only, and pauses do not take place.
class ScriptedSocket {
 public:
  ScriptedSocket();
  ~ScriptedSocket();
  ScriptedSocket(const ScriptedSocket&) = delete;
  ScriptedSocket& operator=(const ScriptedSocket&) = delete;

  // The next writes do this: take so many bytes, or fail with the errno of this negative number.  Those behind
  // them are real.
  void nextWrites(std::deque<int> results);
  void failSocket(int errorNumber);                 // 0: works again
  void failToSetFlags(int errorNumber);             // fcntl(F_SETFL)
  std::vector<std::size_t> writes() const;          // the sizes that were asked for
  const std::vector<unsigned int>& pauses() const;  // in microseconds
  // How far below `frame` the deepest write began.
  std::size_t stackBelow(const void* frame) const;
};

}  // namespace kl::test
