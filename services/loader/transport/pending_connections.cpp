#include "transport/pending_connections.h"

namespace loader {

void Strangers::add(Connection& connection) {
  if (connection.isInLine()) return;
  connection.setInLine(true);
  waiting_.push_back(&connection);
}

void Strangers::forget(Connection& connection) {
  if (connection.isInLine()) std::erase(waiting_, &connection);
  connection.setInLine(false);
}

// A connection that was served may not be there any more.
void Strangers::serve() {
  for (unsigned int n = 0; n < kMostInAPass && !waiting_.empty(); ++n) {
    Connection& first = *waiting_.front();
    waiting_.pop_front();
    first.setInLine(false);
    first.serve();
  }
}

}  // namespace loader
