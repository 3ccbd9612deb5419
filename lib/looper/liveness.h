#pragma once
// liveness.h: whether a handler is still there behind a call of its own operations, which may have destroyed it.
//
//     const Liveness self(*this);
//     unsubscribed(record);
//     if (self.ended()) return;
//
// The watches stand on the stack, each knows the one around it, and the destructor of a handler marks those that
// watch it.  A handler itself pays nothing for that.
//
// Threads: handlers live on the thread of the Looper, and so does this.

#include "kl/looper.h"

namespace kl {

class Liveness {
 public:
  explicit Liveness(Handler& handler)
      : handler_(&handler), number_(handler.getHandlerID()), outer_(innermost_) {
    innermost_ = this;
  }
  Liveness(const Liveness&) = delete;
  Liveness& operator=(const Liveness&) = delete;
  ~Liveness() { innermost_ = outer_; }

  bool ended() const { return handler_ == nullptr; }
  // Null when it has ended.
  Handler* handler() const { return handler_; }
  // The number that it had when the watch began.
  unsigned int number() const { return number_; }

  static void end(const Handler& handler) {
    for (Liveness* watch = innermost_; watch != nullptr; watch = watch->outer_)
      if (watch->handler_ == &handler) watch->handler_ = nullptr;
  }

 private:
  static inline Liveness* innermost_ = nullptr;

  Handler* handler_;
  unsigned int number_;
  Liveness* outer_;
};

}  // namespace kl
