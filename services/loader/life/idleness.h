#pragma once
// idleness.h: which services have nothing to do.

#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "kl/runner.h"
#include "routing/service.h"
#include "services/common/timer.h"

namespace loader {

// Watches the services that are to leave after some time without work: no message for them or from them, and no
// request that they have not answered.  Each is looked at when it could be idle at the earliest, never oftener.
//
// Errors:    none.
// Ownership: borrows the services until they are forgotten.
// Threads:   belongs to one thread.
// Cost:      one timer for each service that is watched.
class Idleness {
 public:
  using Seconds = std::function<unsigned int()>;         // the clock of Service::lastActive
  using OnIdle = std::function<void(Service& service)>;  // what is done about an idle service

  Idleness(kl::ThinRunner& runner, Seconds seconds, OnIdle onIdle)
      : runner_(runner), seconds_(std::move(seconds)), onIdle_(std::move(onIdle)) {}
  Idleness(const Idleness&) = delete;
  Idleness& operator=(const Idleness&) = delete;

  // Whether a service may leave has changed.  If it may, it is watched, and counts as idle at the earliest after
  // `limitSeconds` from now; 0: never.
  void onReadiness(Service& service, unsigned int limitSeconds);

  // The service goes out of the table.
  void forget(const Service& service) { watches_.erase(service.id); }

  // Calls onIdle if the service is idle now; seconds until it could be, or could be again.  Needs: it is watched.
  unsigned int look(Service& service);

 private:
  struct Watch {
    Watch(Idleness& i, Service& s, unsigned int seconds)
        : idleness(i), service(s), limitSeconds(seconds), timer(i.runner_, *this) {}
    void onTimer();

    Idleness& idleness;
    Service& service;
    unsigned int limitSeconds;
    common::Timer<&Watch::onTimer> timer;
  };

  unsigned int look(Watch& watch);
  void lookAgainLater(Watch& watch);

  kl::ThinRunner& runner_;
  Seconds seconds_;
  OnIdle onIdle_;
  std::map<unsigned int, std::unique_ptr<Watch>> watches_;  // by service id
};

}  // namespace loader
