#pragma once
// courier_process.h: a courier (courier.h) from its start to its end.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

#include "values/failure.h"

namespace klctl {

// A process that is registered with the loader.
//
// Errors:    the constructor throws Failure(kNoLoader) when there is no loader and when it does not confirm the
//            registration in time.
// Ownership: owns the process and ends it.
// Threads:   belongs to one thread, and forks: make it before there are others.
// Cost:      one process.
class CourierProcess {
 public:
  // What the process does, runCourier or runJob.
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

// How the ends of a conversation are told.
Failure noLoader(const std::string& sentence);
Failure noReply(std::chrono::milliseconds timeout);
Failure stuckLoader();

// "0.2 s", "5 s".
std::string secondsText(std::chrono::milliseconds duration);

// What the library's own time-out is given before a courier counts as stuck: with a reply begun and never ended it
// would wait for ever.
inline constexpr std::chrono::milliseconds kCourierGrace(1000);

// A time-out as the library takes it, rounded up.
int ticksOf(std::chrono::milliseconds duration);

}  // namespace klctl
