#pragma once
// deadlocks.h: circles of services that wait for each other and will do so for ever.

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "routing/open_requests.h"
#include "routing/service_table.h"
#include "services/common/seconds.h"
#include "services/common/timer.h"
#include "watch/probes.h"

namespace loader {

// Names on the log the services that wait for each other in a circle.  That alone is no fault: who asks and goes on with
// other work answers in time.  So each member is asked for CMD_NOOP, and only where none of them answers within 50 ms is
// the circle named, once.
//
//     at rest --a request may close a circle--> settling --0.1 s--> looking --a circle--> probing --50 ms--> looking
//        ^                                                             '--none--> at rest
//        '-- after a look in which somebody answered, the next one waits for a second
//
// D1  a service has at most one probe that it has not answered; until then it is not asked again
// D2  a circle in which somebody has answered is not looked at again in the same look
// D3  a member of a circle that was named counts in no other one until it answers
//
// Errors:    none.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      nothing while nobody is asked who has asked himself; then a look at most ten times a second.
class Deadlocks {
 public:
  using Clock = std::function<common::Moment()>;
  using Tell = std::function<void(const std::string& line)>;
  using WriteQueues = std::function<void()>;  // writes what a look has put into queues

  static constexpr unsigned int kAnswerTicks = 6;   // more than 50 ms
  static constexpr unsigned int kSettleTicks = 10;  // most circles open again within them
  static constexpr unsigned int kRestTicks = 100;
  static constexpr unsigned int kOldMs = 50;        // a younger request closes no circle
  static constexpr unsigned int kMostLines = 5;     // at once
  static constexpr unsigned int kLineSeconds = 10;  // until one more
  static constexpr std::size_t kMostNames = 32;     // in a line

  Deadlocks(kl::ThinRunner& runner, const ServiceTable& services, const OpenRequests& requests,
            Probes& probes, Clock clock, Tell tell, WriteQueues writeQueues);

  // A request was delivered to somebody who waits himself, by somebody who is waited for.
  void onChain();
  // The service has answered its probe.
  void onAnswer(const Service& service);
  // The service is gone or has left.
  void forget(const Service& service) { named_.erase(service.id); }

  bool isAtRest() const { return state_ == State::kAtRest; }
  // Called when the time has come.
  void onTimer();

 private:
  enum class State : unsigned char { kAtRest, kSettling, kProbing };

  void beginLook();
  void lookOn();
  void probe(const std::vector<Service*>& members);
  bool isSilent(unsigned int service) const {
    return probes_.isOpen(service) || unreached_.contains(service);
  }
  void judge();
  void name(const std::vector<unsigned int>& circle);
  bool takeLine();
  std::string sentenceAbout(const std::vector<unsigned int>& circle) const;
  const OpenRequest* requestBetween(const Service& asker, const Service& asked) const;

  const ServiceTable& services_;
  const OpenRequests& requests_;
  Probes& probes_;
  Clock clock_;
  Tell tell_;
  WriteQueues writeQueues_;
  common::Timer<&Deadlocks::onTimer> timer_;
  State state_ = State::kAtRest;
  unsigned int pauseTicks_ = kSettleTicks;  // before the next look
  std::set<unsigned int> unreached_;        // whose queue had no room for a probe
  std::set<unsigned int> answered_;         // in this look
  std::set<unsigned int> named_;
  bool wantsLook_ = false;            // who has answered may have asked since
  std::vector<unsigned int> circle_;  // that is probed
  unsigned int lines_ = kMostLines;   // that may still be written
  common::Moment linesSince_;
  unsigned int untold_ = 0;
};

}  // namespace loader
