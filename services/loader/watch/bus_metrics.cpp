// The same figures as in the rows of service 1, without a message for each: a look at a hundred services has to be cheap.

#include "watch/bus_metrics.h"

#include <utility>

namespace loader {
namespace {

common::TrafficMetrics metricsOf(const Traffic& traffic) {
  return {traffic.messagesIn, traffic.messagesOut, traffic.bytesIn,
          traffic.bytesOut,   traffic.drops,       traffic.denials};
}

common::ServiceMetrics metricsOf(const Service& service, const OpenRequests& requests, common::Moment now) {
  common::ServiceMetrics metrics;
  metrics.id = service.id;
  metrics.name = service.name;
  metrics.state = service.state;
  metrics.traffic = metricsOf(service.traffic);
  metrics.starts = service.starts;
  metrics.queueBytes = service.waiting();
  metrics.requests = service.requests.servingCount;
  if (const OpenRequest* oldest = requests.oldestTo(service))
    metrics.oldestMs = now.millisecondsSince(oldest->since);
  return metrics;
}

}  // namespace

common::BusMetrics metricsOf(const ServiceTable& services, const OpenRequests& requests,
                             unsigned long long connections, common::Moment now) {
  common::BusMetrics bus;
  bus.all = metricsOf(services.allTraffic());
  bus.connections = connections;
  for (const auto& [id, service] : services.all())
    bus.add(metricsOf(*service, requests, now), service->isConfigured || id == kl::SERVICE_LOADER);
  return bus;
}

}  // namespace loader
