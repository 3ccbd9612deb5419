#pragma once
// ends.h: the ends of services that are not announced yet.

#include <vector>

#include "routing/outbox.h"
#include "routing/service_table.h"

namespace loader {

// Announces ends by CMD_DISCONNECTED: that of a configured service to every other, that of any other to its
// acquaintances.  The ends of a pass are collected, so that those who end together do not hear of each other and the
// table is walked once, however many they are.
//
// E1  the ends are announced in their order
// E2  the announcement precedes everything that a successor under the same id can say: announce() comes before a
//     registration, before a service is asked to leave, and at the end of each pass
//
// Errors:    none.
// Ownership: borrows everything that it is made with; of the ended service nothing.
// Threads:   belongs to one thread.
// Cost:      a notice for each that is told, and one walk over the table when all are; one more for each stranger whom
//            everybody may know.
class Ends {
 public:
  Ends(ServiceTable& table, Outbox& outbox) : table_(table), outbox_(outbox) {}

  void add(const Service& ended);
  void announce();

  // Notifies one service alone.
  void report(Service& to, unsigned int endedId);

 private:
  struct Ended {
    unsigned int id;
    bool isConfigured;
    bool isForAll;
    std::vector<unsigned int> acquaintances;
  };

  void forgetSent(const Service& ended) const;
  std::vector<Service*> everybody() const;
  void notify(Service& to, const Ended& ended, const kl::message& notice);

  ServiceTable& table_;
  Outbox& outbox_;
  std::vector<Ended> ended_;
};

}  // namespace loader
