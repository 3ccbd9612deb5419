#pragma once
// leaving.h: what is remembered of services that leave.

#include <map>
#include <vector>

#include "life/kept_data.h"
#include "routing/envelope.h"
#include "routing/service_table.h"

namespace loader {

// The memory of the leave protocol; what is done about it is the lifecycle's.
//
// L2  what is kept belongs to the last leave, however the service ended since
// L3  kept data are handed out with the deaths of all that were there when the service was asked; it cannot know of
//     anybody else
//
// A service's life goes on over its leaves: it has ended only when its death was announced.  Each life is stamped
// with the moment at which it began, so that two of the same id are distinguished.
//
// Errors:    none.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      asking copies the ids of all services.
class Leaving {
 public:
  Leaving(ServiceTable& table, KeptData& kept) : table_(table), kept_(kept) {}

  // Continues the moments of the last loader.  Needs: the kept data are open.
  void restore() { now_ = kept_.latest(); }
  // The moment at which a service that was away when the last loader ended had come; 0 when it was not away.
  unsigned long long awaySince(unsigned int id) const;
  // The time at which it is to be started; 0: none.
  unsigned int wakeAt(unsigned int id) const;

  // The service has been asked to leave.
  void onAsked(const Service& service);
  bool isAsked(const Service& service) const { return asked_.contains(service.id); }
  // It goes on.
  void onRefused(const Service& service) { asked_.erase(service.id); }
  // It has handed over its data.  Needs: it was asked.
  void onSaved(const Service& service, const Envelope& e);
  // It has left; a process that ended in order without a word had nothing to save.
  void onLeft(const Service& service);
  // It is gone for good.
  void onGone(const Service& service);

  // The service has registered: what it saved when it last left, null without anything, and who has died since.
  const Kept* onRegistered(Service& service);
  std::vector<unsigned int> goneSince(const Kept& kept) const;

 private:
  struct Asked {
    unsigned long long at = 0;
    std::vector<unsigned int> known;
  };

  std::vector<unsigned int> othersOf(const Service& service) const;

  ServiceTable& table_;
  KeptData& kept_;
  std::map<unsigned int, Asked>
      asked_;                   // by service id: those that have been asked and have not answered yet
  unsigned long long now_ = 0;  // the latest moment
};

}  // namespace loader
