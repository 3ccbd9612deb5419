#pragma once
// traffic_table.h: who sends to whom and who has subscribed where, as service 1 shows them.

#include "kl/message.h"
#include "routing/service_table.h"
#include "transport/work.h"

namespace loader {

// Answers CMD_GETALL and CMD_GETOBJ at [1, LOADER_TRAFFIC] (kl/services.h).  A row is made of what the outbox has counted
// for a service and of the subscriptions at it, when somebody asks.  Root and the loader's own user see all rows, everybody
// else his own service's and those of services at which he may read.
//
// Errors:    answered with error replies.
// Ownership: borrows the services.
// Threads:   belongs to one thread.
// Cost:      a row for each service that is shown, and a look at each sender and subscription of it.
class TrafficTable {
 public:
  static constexpr std::size_t kMostSubscribers = 128;  // that are told apart, in one row
  static constexpr unsigned int kMostPath = 4;          // handlers of a path that are shown

  explicit TrafficTable(const ServiceTable& services) : services_(services) {}

  // `request` is as any handler would get it.  What the rows cost is spent of `work`.
  kl::message answer(const Service& asker, const kl::message& request, unsigned int command,
                     Work& work) const;

 private:
  kl::message chunk(const Service& asker, const kl::message& request, Work& work) const;
  kl::message row(const Service& asker, const kl::message& request, Work& work) const;

  const ServiceTable& services_;
};

}  // namespace loader
