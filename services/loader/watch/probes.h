#pragma once
// probes.h: asks services whether they answer anything at all.

#include <map>
#include <utility>

#include "routing/outbox.h"
#include "routing/service.h"
#include "services/common/seconds.h"

namespace loader {

// Asks for CMD_NOOP, which every service answers from its loop, whatever it knows.
//
// P1  a service has at most one probe that it has not answered
// P2  a probe is no work: a service that gets nothing else stays idle
//
// Errors:    none.
// Ownership: borrows the queues.
// Threads:   belongs to one thread.
// Cost:      a message of some 60 bytes, and its answer.
class Probes {
 public:
  explicit Probes(Outbox& outbox) : outbox_(outbox) {}

  // True when the service has now a probe that it has not answered; false when its queue has no room for one.  A
  // probe that is open is not sent again.
  bool ask(Service& service);
  bool isOpen(const Service& service) const { return open_.contains(service.id); }
  bool isOpen(unsigned int service) const { return open_.contains(service); }
  // Whether this is the answer to its probe.
  bool onAnswer(Service& service, unsigned int requestId);
  // The service is gone or has left.
  void forget(const Service& service) { open_.erase(service.id); }

 private:
  struct Probe {
    unsigned int requestId;
    unsigned int activeBefore;  // Service::lastActive
    unsigned long long messages;
  };

  static unsigned long long messagesOf(const Service& service) {
    return service.traffic.messagesIn + service.traffic.messagesOut;
  }

  Outbox& outbox_;
  std::map<unsigned int, Probe> open_;
  unsigned int last_ = 0;
};

}  // namespace loader
