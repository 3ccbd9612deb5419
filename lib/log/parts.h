#pragma once
// parts.h: a record on its way to the socket.

#include <sys/types.h>

#include "kl/logger.h"

namespace kl {

// The bytes that are still to be written: a head, and the text behind it or nothing.  A long text is sent from where
// it lies, so that no large record has to be put together.
struct __attribute__((visibility("hidden"))) Logger::Parts {
  const void* head;
  unsigned int headBytes;
  const void* text = nullptr;
  unsigned int textBytes = 0;

  unsigned int bytes() const { return headBytes + textBytes; }
  ssize_t writeTo(int fd) const;     // one attempt
  void advance(unsigned int count);  // so much of it has been written
};

}  // namespace kl
