#include "ask/interrupt.h"

#include <sys/signalfd.h>
#include <unistd.h>

namespace klctl {

Interrupt::Interrupt() {
  sigset_t interrupt;
  ::sigemptyset(&interrupt);
  ::sigaddset(&interrupt, SIGINT);
  fd_ = ::signalfd(-1, &interrupt, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ >= 0) (void)::sigprocmask(SIG_BLOCK, &interrupt, &before_);
}

// What was taken in time is read, so that it does not end klctl afterwards.
Interrupt::~Interrupt() {
  if (fd_ < 0) return;
  signalfd_siginfo taken;
  while (::read(fd_, &taken, sizeof taken) > 0) {
  }
  ::close(fd_);
  (void)::sigprocmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace klctl
