#pragma once
// courier.h: the process that holds the connection to the loader, from its start to its end.
//
// The library's message loop ends its process when the loader is lost and prints its own lines on the standard
// output.  klctl promises an exit status of its own for that and a standard output with results only, so the
// loop lives in a child process, the courier.  The two talk over a socket pair (pipe.h):
//
//     courier -> klctl   an empty string: registered
//
// and from then on, when klctl asks one thing after the other (runCourier):
//
//     klctl -> courier   an order: what to do, the time-out, the flattened message
//     courier -> klctl   the flattened reply, or an empty string for a message that expects none
//
// or, when the courier has a job of its own (runJob):
//
//     courier -> klctl   flattened messages, as they come
//     courier -> klctl   an empty string: the job has returned
//
// The courier ends when klctl closes its side, or is gone.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

#include "kl/looper.h"
#include "values/failure.h"

namespace klctl {

// The head of an order to the courier, in front of the flattened message, in the host's byte order.
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

// Sends a message to klctl; waits while klctl does not read.
using Emit = std::function<void(const kl::message& m)>;

// Adds handlers, posts requests, runs the loop; all that in the courier's process, which is a copy of klctl's.
using Job = std::function<void(JobLooper& looper, const Emit& emit)>;

// Registers over a connected socket and carries messages until klctl ends.
[[noreturn]] void runCourier(int loaderSocket, int klctlSocket);

// Registers over a connected socket and does the job.
[[noreturn]] void runJob(int loaderSocket, int klctlSocket, const Job& job);

// The courier's process, registered with the loader.
//
// Errors:    the constructor throws Failure(kNoLoader) when there is no loader and when it does not confirm the
//            registration in time.
// Ownership: owns the process and ends it.
// Threads:   belongs to one thread, and forks: make it before there are others.
// Cost:      one process.
class CourierProcess {
 public:
  // The work of the process: runCourier or runJob.
  using Body = std::function<void(int loaderSocket, int klctlSocket)>;

  CourierProcess(std::chrono::milliseconds timeout, const Body& body);
  ~CourierProcess() { end(); }
  CourierProcess(const CourierProcess&) = delete;
  CourierProcess& operator=(const CourierProcess&) = delete;

  // klctl's end of the socket pair; -1 after end().
  int socket() const { return socket_; }

  // Ends it at once.
  void end();

 private:
  void start(int loaderSocket, const Body& body);
  void awaitRegistration(std::chrono::milliseconds timeout);

  pid_t pid_ = -1;
  int socket_ = -1;
};

// The reports of how a conversation ended.
Failure noLoader(const std::string& sentence);
Failure noReply(std::chrono::milliseconds timeout);
Failure stuckLoader();

// "0.2 s", "5 s".
std::string secondsText(std::chrono::milliseconds duration);

// A courier counts as stuck when it exceeds a time-out by this: the library's own time-out does not end the wait for a
// reply that was begun and never ended.
inline constexpr std::chrono::milliseconds kCourierGrace(1000);

// A time-out as the library takes it, rounded up.
int ticksOf(std::chrono::milliseconds duration);

}  // namespace klctl
