#pragma once
// supervisor.h: the service manager that started the loader and wants to hear from it.

#include <sys/socket.h>
#include <sys/un.h>

#include "services/common/descriptor.h"
#include "services/common/timer.h"

namespace loader {

// Tells the socket that the variable NOTIFY_SOCKET names, a path or "@" and an abstract name, that the loader is ready,
// that it ends, and, twice in the time that WATCHDOG_USEC names, that its loop runs.  Without NOTIFY_SOCKET it tells
// nobody; WATCHDOG_USEC counts unless WATCHDOG_PID names another process.
//
//     Supervisor supervisor(loop);
//     supervisor.tellReady();        // READY=1, and WATCHDOG=1 from now on
//     supervisor.tellStopping();     // STOPPING=1
//
// Errors:    none; what a manager does not take is lost.
// Ownership: borrows the loop; owns its socket.
// Threads:   that of the loop.
// Cost:      one datagram a word, for which a full manager lets the loader wait half a second at most; that the loop runs
//            is never waited for.
class Supervisor {
 public:
  explicit Supervisor(kl::ThinRunner& runner);

  void tellReady();
  void tellStopping();

 private:
  void tell(const char* words, int flags);
  void tellAlive();

  sockaddr_un address_{};
  socklen_t addressLength_ = 0;
  common::Descriptor socket_;
  unsigned int aliveTicks_ = 0;  // 0: nobody watches
  common::Timer<&Supervisor::tellAlive> alive_;
};

}  // namespace loader
