// The loader's table has all of it: the sums in its own row, which is the first, and the rows of the services.  A table of
// many services comes in several chunks, so a later row may know of a message that the sums do not have yet.

#include "verbs/metrics.h"

#include <utility>

#include "ask/open_requests.h"
#include "kl/conventions.h"
#include "kl/services.h"
#include "services/common/metrics.h"

namespace klctl {
namespace {

common::ServiceMetrics metricsOf(const kl::message& row) {
  common::ServiceMetrics service;
  service.id = row.get(kl::STD_ID, kl::BADID);
  service.name = row.get(kl::SVC_NAME, "");
  service.state = row.get(kl::SVC_STATE, 0);
  service.traffic = {row.get(kl::SVC_MESSAGES_IN, 0), row.get(kl::SVC_MESSAGES_OUT, 0),
                     row.get(kl::SVC_BYTES_IN, 0),    row.get(kl::SVC_BYTES_OUT, 0),
                     row.get(kl::SVC_DROPS, 0),       row.get(kl::SVC_DENIALS, 0)};
  service.starts = row.get(kl::SVC_STARTS, 0);
  service.queueBytes = row.get(kl::SVC_QUEUE, 0);
  service.requests = row.get(kl::SVC_REQUESTS, 0);
  if (row.has(kl::SVC_OLDEST)) service.oldestMs = row.get(kl::SVC_OLDEST, 0);
  return service;
}

void addSums(common::BusMetrics& bus, const kl::message& row) {
  bus.all = {row.get(kl::SVC_ALL_MESSAGES_IN, 0), row.get(kl::SVC_ALL_MESSAGES_OUT, 0),
             row.get(kl::SVC_ALL_BYTES_IN, 0),    row.get(kl::SVC_ALL_BYTES_OUT, 0),
             row.get(kl::SVC_ALL_DROPS, 0),       row.get(kl::SVC_ALL_DENIALS, 0)};
  bus.connections = row.get(kl::SVC_CONNECTIONS, 0);
}

}  // namespace

void showMetrics(const CommandLine&, const Channels& channels) {
  common::BusMetrics bus;
  for (const kl::message row : fetchServices(channels.exchange)) {
    common::ServiceMetrics service = metricsOf(row);
    const bool isLoader = service.id == kl::SERVICE_LOADER;
    if (isLoader) addSums(bus, row);
    bus.add(std::move(service), isLoader || row.get(kl::SVC_CONFIGURED, false));
  }
  channels.print(common::metricsText(bus));
}

}  // namespace klctl
