#pragma once
// metrics.h: the figures of the whole bus as OpenMetrics text.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace common {

// The traffic between the loader and a service, or all services, since the loader began.  No figure becomes less.
struct TrafficMetrics {
  unsigned long long messagesIn = 0;  // delivered
  unsigned long long messagesOut = 0;
  unsigned long long bytesIn = 0;
  unsigned long long bytesOut = 0;
  unsigned long long drops = 0;
  unsigned long long denials = 0;
};

// One row of the loader's table of services.
struct ServiceMetrics {
  unsigned int id = 0;
  std::string name;
  unsigned int state = 0;  // as the table shows it
  TrafficMetrics traffic;
  unsigned int starts = 0;
  unsigned long long queueBytes = 0;
  unsigned int requests = 0;                   // that it has not answered
  std::optional<unsigned long long> oldestMs;  // the age of the oldest of them
};

// The whole table.  Only services that are configured, and the loader, have lines of their own, so that the number of
// time series is that of the configuration, whoever connects under whatever name; all others are in the sums alone.
struct BusMetrics {
  TrafficMetrics all;  // of services that have gone, too
  unsigned long long connections = 0;
  unsigned long long queueBytes = 0;  // of all that are there
  unsigned long long requests = 0;
  unsigned int others = 0;  // services that are connected and not configured
  std::vector<ServiceMetrics> services;

  // Adds a row; what `all` and `connections` say comes from elsewhere.
  void add(ServiceMetrics service, bool hasOwnLines);
};

// The text, counters first, then gauges, in base units, with "# EOF" behind it.  A figure that is seldom other than 0
// (drops, denials, queue, requests) is left out while it is 0, for the sake of those who read a hundred services.
//
//     # TYPE kelo_in_messages counter
//     # HELP kelo_in_messages Messages delivered to the service.
//     kelo_in_messages_total{service="netif"} 4711
//
// Names are safe for a terminal, of at most kMostName bytes before they are made so, and no two services have the same
// one: what would be the second gets its number behind it.  docs/metrics.md has every family.
//
// Errors:    none.
// Threads:   any.
// Cost:      about 300 bytes for each service and 2.5 KiB.
inline constexpr std::size_t kMostName = 64;
std::string metricsText(const BusMetrics& bus);

}  // namespace common
