#pragma once
// pending_connections.h: connections that have not registered, and can be read.

#include <deque>
#include <unordered_map>

#include "kl/runner.h"
#include "services/common/timer.h"
#include "transport/connection.h"

namespace loader {

// Unregistered connections queue up, those of each account for themselves.  A pass serves the accounts in turns, one
// connection at a time: first those of the reserve, then those of ordinary users, of each at most kMostInAPass after
// all registered ones.  A connection that becomes readable again goes to the back, so none starves.
//
// An account lets its connections in at its pace; while that has none to spare they wait, and those of others do not.
//
// Errors:    none.
// Ownership: borrows the connections until they are served or forgotten, and their accounts.
// Threads:   belongs to one thread.
// Cost:      constant, and a look along the queue of its account when a connection in it is forgotten.
class PendingConnections {
 public:
  static constexpr unsigned int kMostInAPass = 4;

  explicit PendingConnections(kl::ThinRunner& runner) : timer_(runner, *this) {}
  PendingConnections(const PendingConnections&) = delete;
  PendingConnections& operator=(const PendingConnections&) = delete;

  // Queues a readable connection, which may be queued already.
  void add(Connection& connection);
  // The connection is closed.
  void forget(Connection& connection);
  // Reads the first ones.  Connections may be added and forgotten from inside.
  void serve();

 private:
  // The accounts of one pool with connections in their queues.
  class Round {
   public:
    void add(Connection& connection);
    void forget(Connection& connection);
    // True when it stopped because so many were served.
    bool serve(unsigned int most, unsigned int now);
    bool isEmpty() const { return turns_.empty(); }

   private:
    Connection* takeNext(unsigned int now);

    std::deque<Account*> turns_;
    std::unordered_map<Account*, std::deque<Connection*>> queues_;
  };

  Round& roundOf(const Connection& connection);
  void wakeIn(unsigned int ticks);
  void onTimer() {}  // the pass has come

  Round trusted_;
  Round ordinary_;
  common::Timer<&PendingConnections::onTimer> timer_;
};

}  // namespace loader
