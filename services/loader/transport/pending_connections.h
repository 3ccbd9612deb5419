#pragma once
// strangers.h: connections that have not registered, and have something to say.

#include <deque>

#include "transport/connection.h"

namespace loader {

// They wait in a line and are served a few in each pass of the loop, after those who have registered: however many of
// them talk at once, the others wait for a few of them only.  Who is served and talks again stands at the end of the
// line, so that nobody can keep another one from being served.
//
// Errors:    none.
// Ownership: borrows the connections until they are served or end.
// Threads:   belongs to one thread.
// Cost:      constant, and a look along the line when one that stands in it ends.
class Strangers {
 public:
  static constexpr unsigned int kMostInAPass = 4;

  // One that can be read.  As long as it is not, poll reports it again: it may wait already.
  void add(Connection& connection);
  // It is of no use any more.
  void forget(Connection& connection);
  // Reads the first ones.  Ends of connections, and other calls, may come from inside.
  void serve();

 private:
  std::deque<Connection*> waiting_;
};

}  // namespace loader
