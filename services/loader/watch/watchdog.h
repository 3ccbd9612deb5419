#pragma once
// watchdog.h: services that do not answer although they could have run.

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "routing/open_requests.h"
#include "routing/service_table.h"
#include "services/common/seconds.h"
#include "services/common/timer.h"
#include "watch/probes.h"
#include "watch/process_time.h"

namespace loader {

// Asks each service that has a watchdog whether it answers, twice in the time that it is given.  One that has said
// nothing although it could have run for all of that time is asked for its stack, where it has a handler for that, and is
// ended; the lifecycle starts it again as after a crash.
//
//     answered --a quarter of its time--> asked --could have run for its time--> shown --0.3 s--> ended
//        ^                                  '--says anything, or reads--.       |
//        '--------------------------------------------------------------'<--answers-'
//
// W1  time counts only as far as the process could have run: not while the machine ran others, while it waited for a
//     disk, while it was stopped or traced, nor while the loader itself stood still
// W2  who sleeps while a request of his own is open waits for somebody else, and is left alone
// W3  a service is ended only while the loader's question is open
//
// Errors:    none.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      nothing without a watchdog; else a message and its answer in each half of its time, and a reading of two
//            files of the kernel at the first and while the answer is missing.
class Watchdog {
 public:
  using Clock = std::function<common::Moment()>;
  using Tell = std::function<void(const std::string& line)>;
  using End = std::function<void(Service& service, const std::string& why)>;
  using Flush = std::function<void()>;  // writes what was put into queues
  using Look = std::function<std::optional<ProcessTime>(pid_t pid)>;

  static constexpr unsigned int kTicksASecond = 100;
  static constexpr unsigned int kLooks = 4;       // in the time of a service
  static constexpr unsigned int kShowTicks = 30;  // for the stack to be written
  static constexpr std::size_t kMostNames = 32;   // of a chain

  Watchdog(kl::ThinRunner& runner, const ServiceTable& services, const OpenRequests& requests, Probes& probes,
           Clock clock, Tell tell, End end, Flush flush, Look look = processTimeOf);

  // The time of a service; 0: it is not watched.
  void watch(unsigned int service, unsigned int seconds);
  // Called when the time has come.
  void onTimer();

 private:
  enum class State : unsigned char { kAnswered, kAsked, kShown };
  struct Watched {
    unsigned int seconds = 0;
    State state = State::kAnswered;
    pid_t pid = 0;           // whom the rest is about
    bool isReached = false;  // the question is on its way
    common::Moment askedAt;
    common::Moment shownAt;
    common::Moment lookedAt;  // when `time` was read
    ProcessTime time;
    unsigned long long couldRunMs = 0;
    unsigned long long ranMs = 0;
    unsigned long long messagesOut = 0;  // signs of life
    std::size_t waiting = 0;
    bool isExcuseTold = false;
  };

  struct Stretch {  // between two looks
    unsigned long long couldRunMs;
    unsigned long long ranMs;
  };

  static void forgetProcess(Watched& watched);
  static bool hasMoved(const Service& service, const Watched& watched);
  void look(unsigned int id, Watched& watched);
  void ask(Service& service, Watched& watched);
  void await(Service& service, Watched& watched);
  void judge(Service& service, Watched& watched);
  void finish(Service& service, Watched& watched);
  Stretch stretchUntil(const ProcessTime& time, const Watched& watched) const;
  bool isExcused(const Service& service, Watched& watched, const ProcessTime& time) const;
  void excuse(const Service& service, Watched& watched, const std::string& why) const;
  void beginAnew(const Service& service, Watched& watched, const ProcessTime& time) const;
  unsigned long long passedSince(common::Moment moment) const { return clock_().millisecondsSince(moment); }
  bool hasAnswered(const Service& service, const Watched& watched) const;
  const OpenRequest* waitsFor(const Service& service) const;
  std::string chainFrom(const Service& service) const;
  unsigned int pauseTicks() const;

  const ServiceTable& services_;
  const OpenRequests& requests_;
  Probes& probes_;
  Clock clock_;
  Tell tell_;
  End end_;
  Flush flush_;
  Look look_;
  common::Timer<&Watchdog::onTimer> timer_;
  std::map<unsigned int, Watched> watched_;
};

}  // namespace loader
