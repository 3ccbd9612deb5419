#pragma once
// bus_metrics.h: the table of services as metrics.

#include "routing/open_requests.h"
#include "routing/service_table.h"
#include "services/common/metrics.h"
#include "services/common/seconds.h"

namespace loader {

// The table at this moment, with the figures that its rows show to who asks the own service.  A look at each row.
common::BusMetrics metricsOf(const ServiceTable& services, const OpenRequests& requests,
                             unsigned long long connections, common::Moment now);

}  // namespace loader
