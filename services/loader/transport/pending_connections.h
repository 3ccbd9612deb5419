#pragma once
// pending_connections.h: connections that have not registered, and can be read.

#include <deque>

#include "transport/connection.h"

namespace loader {

// Unregistered connections queue up; each pass serves at most kMostInAPass after all registered ones.  One that becomes
// readable again goes to the back, so none starves.
//
// Errors:    none.
// Ownership: borrows the connections until they are served or forgotten.
// Threads:   belongs to one thread.
// Cost:      constant, and a look along the queue when a connection in it is forgotten.
class PendingConnections {
 public:
  static constexpr unsigned int kMostInAPass = 4;

  // Queues a readable connection.  Poll reports it until it is read, so it may be queued already.
  void add(Connection& connection);
  // The connection is closed.
  void forget(Connection& connection);
  // Reads the first ones.  Connections may be added and forgotten from inside.
  void serve();

 private:
  std::deque<Connection*> queue_;
};

}  // namespace loader
