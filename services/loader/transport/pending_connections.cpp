// A connection is taken out of its queue before it is served: it may be closed, or queued again, from inside.  Poll
// does not report what is queued, so a timer sees to it that the next pass comes.

#include "transport/pending_connections.h"

namespace loader {

void PendingConnections::add(Connection& connection) {
  if (connection.isQueued()) return;
  connection.setQueued(true);
  roundOf(connection).add(connection);
  wakeIn(0);
}

void PendingConnections::forget(Connection& connection) {
  if (!connection.isQueued()) return;
  roundOf(connection).forget(connection);
  connection.setQueued(false);
}

void PendingConnections::serve() {
  if (trusted_.isEmpty() && ordinary_.isEmpty()) return;
  const unsigned int now = kl::getJiffies();
  bool hasMore = trusted_.serve(kMostInAPass, now);
  hasMore = ordinary_.serve(kMostInAPass, now) || hasMore;
  if (!trusted_.isEmpty() || !ordinary_.isEmpty()) wakeIn(hasMore ? 0 : 1);
}

PendingConnections::Round& PendingConnections::roundOf(const Connection& connection) {
  const Account* account = connection.account();
  return account != nullptr && !account->isTrusted() ? ordinary_ : trusted_;
}

void PendingConnections::wakeIn(unsigned int ticks) {
  if (!timer_.isRunning() || ticks == 0) timer_.start(ticks);
}

void PendingConnections::Round::add(Connection& connection) {
  const auto [place, isNew] = queues_.try_emplace(connection.account());
  place->second.push_back(&connection);
  if (isNew) turns_.push_back(connection.account());
}

void PendingConnections::Round::forget(Connection& connection) {
  const auto found = queues_.find(connection.account());
  if (found != queues_.end()) std::erase(found->second, &connection);
}

bool PendingConnections::Round::serve(unsigned int most, unsigned int now) {
  for (unsigned int served = 0; served < most; ++served) {
    Connection* next = takeNext(now);
    if (next == nullptr) return false;
    next->setQueued(false);
    next->serve();
  }
  return true;
}

// The first connection of the account whose turn it is and that lets one in; null when none does.
Connection* PendingConnections::Round::takeNext(unsigned int now) {
  for (std::size_t looks = turns_.size(); looks > 0; --looks) {
    Account* account = turns_.front();
    turns_.pop_front();
    std::deque<Connection*>& queue = queues_[account];
    if (queue.empty()) {
      queues_.erase(account);
      continue;
    }
    turns_.push_back(account);
    Connection* first = queue.front();
    if (!first->isLetIn() && account != nullptr && !account->pace().admitOne(now)) continue;
    first->letIn();
    queue.pop_front();
    return first;
  }
  return nullptr;
}

}  // namespace loader
