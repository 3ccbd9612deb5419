#pragma once
// turns.h: shares the work of a pass among connections.

#include <list>

#include "transport/work.h"

namespace loader {

class Connection;

// Deficit round robin.  A connection that poll reports gets a first turn, which is long enough for all the plain frames
// of one read.  One that has more to do, or owes work, waits behind the others that do; each pass gives the first of
// them short turns.  So who says little is heard at once, and who says much shares what is left.
//
// T1  a connection is in the queue exactly while it has frames that were read and not handled, owes work, or has not
//     met the end of its input since it had to wait; its other input stays in its socket
// T2  a pass gives the queue at most kNext units and what the last frame costs beyond them, and the first turns of all
//     connections kAtOnce; beyond that a first turn has kNext units, too
// T3  frames that were read and not handled take at most kMostAhead, one read more, and kShortRead of each connection
//
// Errors:    none.
// Ownership: borrows the connections until they had their turn or are forgotten.
// Threads:   belongs to one thread.
// Cost:      constant; nothing is allocated while no connection waits.
class Turns {
 public:
  static constexpr Work::Units kFirst = 256 * 1024;    // about a millisecond
  static constexpr Work::Units kAtOnce = 1024 * 1024;  // of first turns in one pass
  static constexpr Work::Units kNext = 2 * 1024;       // what a pass costs anyway, or little more
  static constexpr std::size_t kLongRead = 64 * 1024;
  static constexpr std::size_t kShortRead = 2 * 1024;  // which is not charged
  static constexpr std::size_t kMostAhead = 128 * 1024;

  // A connection's place in the queue.
  struct Waiting {
    Connection* connection;
    std::size_t bytes;  // that it has read and not handled
  };
  using Queue = std::list<Waiting>;

  // `work` counts what the rooms above spend.
  explicit Turns(Work& work) : work_(work) {}

  Work& work() { return work_; }

  // The most that a first turn may cost now, and that it may read.
  Work::Units firstTurn() const { return firstSpent_ < kAtOnce ? kFirst : kNext; }
  std::size_t firstRead() const { return ahead_ < kMostAhead ? kLongRead : kShortRead; }
  void addFirst(Work::Units spent) { firstSpent_ += spent; }

  // The connection waits for its next turn; forget() takes it out.
  Queue::iterator add(Connection& connection, std::size_t bytes);
  void forget(Queue::iterator place);
  Queue::iterator nowhere() { return queue_.end(); }

  // Begins a pass with the turns of those that wait.
  void serve();

  std::size_t waiting() const { return queue_.size(); }
  std::size_t ahead() const { return ahead_; }

 private:
  Work& work_;
  Queue queue_;
  std::size_t ahead_ = 0;  // the bytes of all that wait
  Work::Units firstSpent_ = 0;
};

}  // namespace loader
