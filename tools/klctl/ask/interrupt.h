#pragma once
// interrupt.h: the user's interrupt as a descriptor.

#include <csignal>

namespace klctl {

// While it lives, SIGINT does not end klctl but makes a descriptor readable.  A courier that is started meanwhile does
// not hear of the signal.
//
// Errors:    where no descriptor can be made, SIGINT keeps its effect and fd() is -1.
// Ownership: owns the descriptor; the destructor gives SIGINT its effect back.
// Threads:   make it before there are others.
// Cost:      one descriptor.
class Interrupt {
 public:
  Interrupt();
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  // Readable from the first SIGINT on.
  int fd() const { return fd_; }

 private:
  sigset_t before_{};
  int fd_ = -1;
};

}  // namespace klctl
