#pragma once
// session.h: klctl's conversation with the loader.

#include <chrono>

#include "ask/courier.h"
#include "ask/courier_process.h"
#include "ask/pipe.h"
#include "kl/message.h"

namespace klctl {

// A registered connection, for as long as it lives.
//
//     Session session(std::chrono::seconds(5));
//     kl::message reply = session.exchange(request);
//
// Errors:    everything is a Failure: kNoLoader when there is no loader, when it does not confirm the registration
//            in time and when it goes away; kTimeout when a reply does not come in time; kUsage for a
//            request that no frame can carry.  Nothing here waits for ever.
// Ownership: owns the courier process and ends it.
// Threads:   belongs to one thread, and forks: make it before there are others.
// Cost:      one process; an exchange passes through it.
class Session {
 public:
  // The time-out holds for the registration, and for each exchange anew.
  explicit Session(std::chrono::milliseconds timeout);

  // Sends a request and returns its reply, which may be an error reply.
  kl::message exchange(const kl::message& request);

  // Sends a message that expects no reply, and returns when the loader has taken it.
  void send(const kl::message& m);

 private:
  Bytes carry(Order::Kind kind, const kl::message& m);

  std::chrono::milliseconds timeout_;
  CourierProcess courier_;
};

// Throws Failure(kUsage) for a request that no frame can carry.
void refuseOversized(const kl::message& m);

}  // namespace klctl
