#pragma once
// stream_session.h: a conversation with the loader in which messages come by themselves.

#include <chrono>

#include "ask/courier.h"
#include "ask/courier_process.h"
#include "ask/pipe.h"
#include "kl/message.h"

namespace klctl {

// A job in a registered process, and the messages that it gives:
//
//     const Interrupt interrupt;                      // before the stream, see interrupt.h
//     StreamSession stream(std::chrono::seconds(5), [](JobLooper& looper, const Give& give) {
//       Follower follower(give);                    // a kl::Handler that gives what it is notified of
//       looper.addHandler(1, &follower);
//       follower.subscribe({32}, kl::CMD_NOTIFY, kl::message());
//       looper.run();                               // looper.shutdown() ends the stream
//     });
//     kl::message m;
//     while (stream.next(m, {}, interrupt.fd()) == StreamSession::kMessage) show(m);
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
    kMessage,      // m is the next message
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
