#pragma once
// listener.h: the socket that processes log to.

#include <string>

#include "keeping/descriptor.h"

namespace logd {

// The socket at its place in the file system, which any user may write to.  It takes the place of a socket that a
// killed log service left in one step, so that there is no moment without one.
//
// Errors:    open() says what went wrong.
// Ownership: owns the socket and its file, which goes with it.
// Threads:   belongs to one thread.
// Cost:      does not matter here.
class Listener {
 public:
  Listener() = default;
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() { close(); }

  // Opens the socket; an empty text, or what went wrong.  A log service that lives is not replaced.
  std::string open();
  void close();

  int fd() const { return socket_.get(); }

  // The next process that waits; not open when there is none, with errno.
  Descriptor accept() const;

 private:
  Descriptor socket_;
  std::string path_;
};

}  // namespace logd
