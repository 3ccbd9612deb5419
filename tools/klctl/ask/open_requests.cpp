// The loader's table of services gives the names, that of the open requests the numbers.

#include "ask/open_requests.h"

#include <algorithm>

#include "kl/conventions.h"
#include "kl/services.h"

namespace klctl {
namespace {

ServiceRows tableAt(const std::vector<unsigned int>& path, const std::string& name,
                    const Exchange& exchange) {
  kl::message request;
  request.insert(kl::SYS_CMD, kl::CMD_GETALL);
  request.insert(kl::SYS_TO, path);
  return fetchAll(request, name, exchange);
}

OpenRequest requestOf(const kl::message& row) {
  return {row.get(kl::REQUEST_ASKER, 0),   row.get(kl::REQUEST_ASKED, 0), row.get(kl::REQUEST_PATH, {}),
          row.get(kl::REQUEST_COMMAND, 0), row.get(kl::REQUEST_AGE, 0),   row.get(kl::REQUEST_HELD, false)};
}

}  // namespace

std::string OpenRequests::nameOf(unsigned int service) const {
  const auto found = services.find(service);
  const bool hasName = found != services.end() && !found->second.name.empty();
  return hasName ? found->second.name : std::to_string(service);
}

const OpenRequest* OpenRequests::oldestOf(unsigned int asker) const {
  const auto found = std::find_if(requests.begin(), requests.end(),
                                  [asker](const OpenRequest& request) { return request.asker == asker; });
  return found == requests.end() ? nullptr : &*found;
}

const OpenRequest* OpenRequests::oldestTo(unsigned int asked) const {
  const auto found = std::find_if(requests.begin(), requests.end(),
                                  [asked](const OpenRequest& request) { return request.asked == asked; });
  return found == requests.end() ? nullptr : &*found;
}

ServiceRows fetchServices(const Exchange& exchange) {
  return tableAt({kl::SERVICE_LOADER}, "loader", exchange);
}

OpenRequests fetchOpenRequests(const Exchange& exchange) {
  return fetchOpenRequests(fetchServices(exchange), exchange);
}

OpenRequests fetchOpenRequests(const ServiceRows& services, const Exchange& exchange) {
  OpenRequests open;
  for (const kl::message row : services)
    open.services[row.get(kl::STD_ID, kl::BADID)] = {row.get(kl::SVC_NAME, ""),
                                                     static_cast<pid_t>(row.get(kl::SVC_PID, 0))};
  for (const kl::message row : tableAt({kl::SERVICE_LOADER, kl::LOADER_REQUESTS}, "loader/request", exchange))
    open.requests.push_back(requestOf(row));
  std::stable_sort(open.requests.begin(), open.requests.end(),
                   [](const OpenRequest& a, const OpenRequest& b) { return a.ageMs > b.ageMs; });
  return open;
}

}  // namespace klctl
