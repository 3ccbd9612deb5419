// A connection is taken out of the queue before it is served: it may be closed, or queued again, from inside.

#include "transport/pending_connections.h"

namespace loader {

void PendingConnections::add(Connection& connection) {
  if (connection.isQueued()) return;
  connection.setQueued(true);
  queue_.push_back(&connection);
}

void PendingConnections::forget(Connection& connection) {
  if (connection.isQueued()) std::erase(queue_, &connection);
  connection.setQueued(false);
}

void PendingConnections::serve() {
  for (unsigned int n = 0; n < kMostInAPass && !queue_.empty(); ++n) {
    Connection& first = *queue_.front();
    queue_.pop_front();
    first.setQueued(false);
    first.serve();
  }
}

}  // namespace loader
