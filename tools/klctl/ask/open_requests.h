#pragma once
// open_requests.h: who waits for whom, as the loader says it.

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "ask/fetch.h"

namespace klctl {

struct KnownService {
  std::string name;
  pid_t pid = 0;  // 0 while no process runs
};

struct OpenRequest {
  unsigned int asker = 0;
  unsigned int asked = 0;
  std::vector<unsigned int> path;  // inside the asked service
  unsigned int command = 0;
  unsigned long long ageMs = 0;
  bool isHeld = false;  // the asked service gets it when it comes
};

// The requests that are not answered, as far as the user may see them.  klctl's own are not among them: the one that
// asks for the table is answered by the loader itself.
struct OpenRequests {
  std::map<unsigned int, KnownService> services;
  std::vector<OpenRequest> requests;  // the oldest first

  // "leases", and the number of a service that has gone.
  std::string nameOf(unsigned int service) const;
  // Null when it makes none.
  const OpenRequest* oldestOf(unsigned int asker) const;
  // Null when none waits for it.
  const OpenRequest* oldestTo(unsigned int asked) const;
};

using ServiceRows = std::vector<kl::message::flat_message>;

// The loader's table of services.  Throws Failure.
ServiceRows fetchServices(const Exchange& exchange);

// Two tables, one after the other, or the second one behind a first that is known.  Throws Failure.
OpenRequests fetchOpenRequests(const Exchange& exchange);
OpenRequests fetchOpenRequests(const ServiceRows& services, const Exchange& exchange);

}  // namespace klctl
