#pragma once
// request_table.h: the open requests, as service 1 shows them.

#include <functional>
#include <utility>

#include "kl/message.h"
#include "routing/open_requests.h"
#include "routing/service_table.h"
#include "services/common/seconds.h"
#include "transport/work.h"

namespace loader {

// Answers for the path [1, LOADER_REQUESTS] (kl/services.h).  There is no second book: each row is made of the request
// that the router has noted, when somebody asks for it.  Root and the loader's own user see all of them; everybody else
// sees those that his service made, and those to services at which he may read.  A trusted one that takes "control" from
// its request speaks for somebody whom nobody knows, and sees none.
//
// Errors:    none.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      a row for each request that is shown, and a look at each that is passed over.
class RequestTable {
 public:
  using Clock = std::function<common::Moment()>;

  static constexpr unsigned int kMostPath = 4;  // handlers of a path that are shown

  // `clock` is that of the requests.
  RequestTable(const ServiceTable& services, const OpenRequests& requests, Clock clock)
      : services_(services), requests_(requests), clock_(std::move(clock)) {}

  // One chunk, as CMD_GETALL asks for it, and the number of rows.  Their cost is spent of `work`.
  kl::message chunk(const Service& asker, const kl::message& request, Work& work) const;
  kl::message count(const Service& asker, const kl::message& request, Work& work) const;

  // Adds to the row of a service what its requests say: how old the oldest is that waits for it, and when it sent
  // something last.
  void addTo(kl::message& row, const Service& service) const;

 private:
  const OpenRequest* next(unsigned int& place, Work& work) const;
  kl::message rowOf(const OpenRequest& request, unsigned int place, common::Moment now) const;
  bool isShown(const OpenRequest& open, const Service& asker, const kl::message& request) const;

  const ServiceTable& services_;
  const OpenRequests& requests_;
  Clock clock_;
};

// Whether who asks so is shown what `own` asks `asked`, or who sends to it.
bool maySee(const Service& asker, const kl::message& request, const Service& own, const Service& asked);

}  // namespace loader
