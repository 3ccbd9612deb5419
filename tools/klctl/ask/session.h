#pragma once
// session.h: klctl's conversations with the loader: one request after the other, or messages that come by themselves
// until the user interrupts.

#include <chrono>
#include <csignal>
#include <vector>

#include "ask/courier.h"
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

// While it lives, SIGINT, or each of the signals that are named, does not end klctl but makes a descriptor readable.  A
// courier that is started meanwhile does not get the signal.
//
// Errors:    where no descriptor can be made, the signals keep their effect and fd() is -1.
// Ownership: owns the descriptor; the destructor gives the signals their effect back.
// Threads:   make it before there are others.
// Cost:      one descriptor.
class Interrupt {
 public:
  explicit Interrupt(const std::vector<int>& signals = {SIGINT});
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  // Readable from the first such signal on.
  int fd() const { return fd_; }

 private:
  sigset_t before_{};
  int fd_ = -1;
};

// A job in a registered process, and the messages that it emits:
//
//     const Interrupt interrupt;                      // before the stream
//     StreamSession stream(std::chrono::seconds(5), [](JobLooper& looper, const Emit& emit) {
//       Follower follower(emit);                    // a kl::Handler that emits what it is notified of
//       looper.addHandler(1, &follower);
//       follower.subscribe({32}, kl::CMD_NOTIFY, kl::message());
//       looper.run();                               // looper.shutdown() ends the stream
//     });
//     kl::message m;
//     while (stream.next(m, {}, interrupt.fd()) == StreamSession::kArrived) show(m);
//
// Errors:    as Session: a Failure of the status kNoLoader when there is no loader, when it does not confirm the
//            registration in time, and when it goes away.
// Ownership: owns the courier process and ends it.
// Threads:   belongs to one thread, and forks: make it before there are others.
// Cost:      one process; a message is copied through a socket.  A job waits while its messages are not taken, and
//            the loader ends a connection that is not read for 10 s.
class StreamSession {
 public:
  enum Next {
    kArrived,      // m is the next message
    kEnded,        // the job has returned
    kInterrupted,  // the interrupt's descriptor is readable
    kLate,         // nothing came until the deadline
  };

  // The time-out holds for the registration.
  StreamSession(std::chrono::milliseconds timeout, const Job& job);

  // Waits for what comes first.  Without deadline it waits for ever; an interrupt of -1 never comes.
  Next next(kl::message& m, const Deadline& deadline = {}, int interrupt = -1);

 private:
  CourierProcess courier_;
};

}  // namespace klctl
