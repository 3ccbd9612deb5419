#pragma once
// witness.h: who looks on while frames pass.

#include "kl/message.h"

namespace loader {

struct Envelope;
struct Service;

// Told of each frame before anything becomes of it.  The router and the outbox have one, or none; without one a frame
// costs a branch.
class Witness {
 public:
  virtual ~Witness() = default;

  // A service has sent this.  Borrowed until it returns.
  virtual void onFrame(const Service& sender, const Envelope& e) = 0;
  // The loader is about to send this, in its own name or in that of SYS_FROM.
  virtual void onOwnMessage(const Service& to, const kl::message& m) = 0;
};

}  // namespace loader
