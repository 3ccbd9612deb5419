// A connection leaves the queue for its turn and comes back to its end, so each gets at most one turn in a pass.  One
// that owes work pays with its turn and costs nothing.

#include "transport/turns.h"

#include "transport/connection.h"

namespace loader {

Turns::Queue::iterator Turns::add(Connection& connection, std::size_t bytes) {
  ahead_ += bytes;
  return queue_.insert(queue_.end(), {&connection, bytes});
}

void Turns::forget(Queue::iterator place) {
  ahead_ -= place->bytes;
  queue_.erase(place);
}

void Turns::serve() {
  firstSpent_ = 0;
  Work::Units left = kNext;
  for (std::size_t n = queue_.size(); n > 0 && left > 0 && !queue_.empty(); --n)
    left -= queue_.front().connection->serveNext(kNext);
}

}  // namespace loader
