#pragma once
// courier.h: the process that holds the connection to the loader.
//
// The library's message loop ends its process when the loader is lost and prints its own lines on the standard
// output.  klctl promises an exit status of its own for that and a standard output with results only, so the
// loop lives in a child process, the courier.  The two talk over a socket pair (pipe.h):
//
//     courier -> klctl   an empty string: registered
//
// and from then on, when klctl asks one thing after the other (runCourier):
//
//     klctl -> courier   a request: what to do, the time-out, the flattened message
//     courier -> klctl   the flattened reply, or an empty string for a message that expects none
//
// or, when the courier has a job of its own (runJob):
//
//     courier -> klctl   flattened messages, as they come
//     courier -> klctl   an empty string: the job has returned
//
// The courier ends when klctl closes its side, or is gone.

#include <functional>

#include "kl/looper.h"

namespace klctl {

// What stands in front of a flattened message, in the host's order.
struct Order {
  enum Kind : int { kExchange, kSend };
  Kind kind;
  int timeoutTicks;
};

// The loop of a courier with a job.  klctl is no service: its loop remembers no first start.
class JobLooper : public kl::Looper {
 public:
  JobLooper() : kl::Looper(kInherited) {}
  void run() override { kl::Runner::run(); }  // NOLINT(bugprone-parent-virtual-call)

  // Sees every message before it is dispatched; true drops it.
  std::function<bool(const kl::message&)> filter;
  bool filterMessage(const kl::message& m) override { return filter && filter(m); }
};

// Hands a message to klctl; waits when klctl does not read.
using Give = std::function<void(const kl::message& m)>;

// Adds handlers, posts requests, runs the loop; all that in the courier's process, which is a copy of klctl's.
using Job = std::function<void(JobLooper& looper, const Give& give)>;

// Registers over a connected socket and carries messages until klctl ends.
[[noreturn]] void runCourier(int loaderSocket, int klctlSocket);

// Registers over a connected socket and does the job.
[[noreturn]] void runJob(int loaderSocket, int klctlSocket, const Job& job);

}  // namespace klctl
