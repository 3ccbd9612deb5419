#pragma once
// service.h: one row of the loader's table: a service that is configured, connected, or both.

#include <sys/types.h>

#include <string>

#include "buffer.h"
#include "configuration.h"
#include "kl/services.h"
#include "open_requests.h"
#include "rewrite.h"

namespace loader {

class Connection;

// What has passed between the loader and one service.  In is what was delivered to it, out is what it sent.
struct Traffic {
  unsigned long long messagesIn = 0;
  unsigned long long messagesOut = 0;
  unsigned long long bytesIn = 0;
  unsigned long long bytesOut = 0;
  unsigned long long drops = 0;
};

// A service by its id.  Its messages wait in `out`, also before it has a connection: that is how requests to a
// service that is still starting are held.
//
// Ownership: the table owns services; everybody else borrows them until the table removes them.
// Threads:   belongs to one thread.
struct Service {
  explicit Service(unsigned int serviceId) : id(serviceId) {}

  unsigned int id;
  std::string name;
  const ServiceConfiguration* configuration = nullptr;  // null when it only connected
  pid_t pid = 0;                                        // 0 while no process is known
  std::string user;
  RightsRecords rights;  // empty when it has all rights

  unsigned int state = kl::SVC_STATE_STOPPED;
  unsigned int starts = 0;
  bool hasRegistered = false;   // since the loader started
  unsigned int leaveValue = 0;  // what it said last with CTRL_LEAVE_VALUE; 0: it may not be asked to leave

  Connection* connection = nullptr;  // set from its registration to its end
  Buffer out;
  bool hasNews = false;  // something was put into `out` since the last write
  Traffic traffic;
  RequestLists requests;

  bool isConnected() const { return connection != nullptr; }
  bool isConfigured() const { return configuration != nullptr; }

  // Requests are held for a service on its way up that nobody could reach before.
  bool holdsRequests() const {
    if (isConnected() || hasRegistered || !isConfigured()) return false;
    return state == kl::SVC_STATE_STARTING || configuration->command.empty();
  }
};

}  // namespace loader
