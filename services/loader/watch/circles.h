#pragma once
// circles.h: services that wait for each other.

#include <functional>
#include <vector>

#include "routing/open_requests.h"
#include "routing/service_table.h"
#include "services/common/seconds.h"

namespace loader {

// The circle that the open requests make at one moment.
struct Circle {
  // Each waits for the next one, and the last for the first; none without a circle.
  std::vector<Service*> members;
  // Without members: some request is too young to count, and may close one.
  bool isTooEarly = false;
};

// Finds a circle of requests that were all made at `latest` or before, among services for which `counts` holds.  A request
// counts that its asked service has been given and that expects a reply.
//
// Cost: a look at each open request of the services that both ask and are asked.
Circle findCircle(const ServiceTable& services, const OpenRequests& requests, common::Moment latest,
                  const std::function<bool(const Service& service)>& counts);

}  // namespace loader
