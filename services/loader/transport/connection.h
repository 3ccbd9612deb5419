#pragma once
// connection.h: the socket of one process.

#include <span>
#include <string>

#include "services/common/timer.h"
#include "transport/descriptors.h"
#include "transport/frame_reader.h"
#include "transport/sockets.h"
#include "transport/turns.h"

namespace loader {

// The receiver of the frames of one connection and of its end.
class ConnectionHost {
 public:
  // Frames that one read brought are coming.
  virtual void onBatch() = 0;
  // One frame's body.  Null, or what makes it a reason to disconnect.
  virtual const char* onFrame(std::span<const unsigned char> body) = 0;
  // The last frame has more receivers than its turn allows: it is to be handed over again in the next one.
  virtual bool isFrameUnfinished() const { return false; }
  // A pending connection can be read: serve() is to be called when its turn comes.
  virtual void onPendingReadable() = 0;
  // The connection is of no use any more; the reason is empty when the other side just closed it.  Calls close().
  virtual void onConnectionClosed(const std::string& reason) = 0;
  // At the end of every callback: writes what it put into queues.
  virtual void writeQueues() = 0;

 protected:
  ~ConnectionHost() = default;
};

// How patient a connection is with a process that does not read.
struct Patience {
  std::size_t queueLimit;   // a queue that holds so much counts as full
  unsigned int stallTicks;  // also with one that does not end its frame or does not register; 0: without end
};

// Reads frames, and writes the queue of the process that has registered.  Until it has, a connection that came in at
// the socket is pending; one to a process that the loader has started is not.
//
// C1  poll asks for POLLOUT exactly while the last write did not take everything (isBlocked_)
// C2  the stall timer runs while the queue is at its limit, and any byte written begins it anew; and for a pending
//     connection from its beginning
// C3  what a process makes the loader keep of its input is at most one frame of FRAME_MOST_BYTES, for a bounded time:
//     the frame timer runs while a frame is unfinished, and a frame that it meets twice closes the connection
// C4  its frames are handled in their order, as many in a turn as the turn allows; the others are set aside, and
//     nothing is read before they are handled, so the end of the stream is met behind all of them
//
// Errors:    reported to the host as the end of the connection, once.
// Ownership: owns the descriptor; borrows everything else.
// Threads:   belongs to one thread.
// Cost:      one read for many frames, one write for everything that is queued.
class Connection {
 public:
  enum class Origin : unsigned char { kAccepted, kLaunched };

  Connection(Sockets& sockets, ConnectionHost& host, ReadArea& area, Turns& turns, Descriptor socket,
             Origin origin, Patience patience);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { close(); }

  bool isOpen() const { return socket_.isOpen(); }
  bool isPending() const { return isOpen() && out_ == nullptr && origin_ == Origin::kAccepted; }

  // The process has registered; what is written to it is `out`, which is borrowed until close().
  void attach(Buffer& out);

  // Its first turn in a pass: reads once, and handles what it brings.
  void serve();
  // Its turn, as it had to wait for it; what that cost.  It may be gone afterwards.
  Work::Units serveNext(Work::Units units);

  // The account that pays for what it keeps; null: none.
  Account* account() const { return account_; }
  void chargeTo(Account* account) {
    account_ = account;
    reader_.chargeTo(account);
  }

  // The mark of PendingConnections that it waits for its turn.  Poll does not look at it meanwhile, since it would
  // report it in each pass.
  bool isQueued() const { return isQueued_; }
  void setQueued(bool isQueued);
  // The mark of PendingConnections that it has been let in.
  bool isLetIn() const { return isLetIn_; }
  void letIn() { isLetIn_ = true; }

  // The process reads no more, as a write has shown; what it has sent before is still handled.
  bool hasStoppedReading() const { return hasStoppedReading_; }

  // Something new is in the queue.
  void onOutput();

  // Reads what is still there, frame by frame, until there is nothing more.  The process has ended.
  void drain();

  // Closes the socket and forgets the queue.
  void close();

 private:
  void onEvent(int fd, unsigned int events);
  void takeFirstTurn();
  void spendTurn();
  bool readOnce(std::size_t most);
  void handleKept();
  void handleFrames();
  bool isWaiting() const { return place_ != turns_.nowhere(); }
  void awaitTurn();
  void stopAwaitingTurn();
  const char* whatIsTooLong() const;
  void write();
  void giveUpWriting();
  void setBlocked(bool isBlocked);
  void watchProgress(bool hasProgress);
  void onStall();
  void watchFrame();
  void onFrameStall();

  Sockets& sockets_;
  ConnectionHost& host_;
  Descriptor socket_;
  Origin origin_;
  Patience patience_;
  FrameReader reader_;
  Turns& turns_;
  Turns::Queue::iterator place_;  // where it waits for its turn
  Work::Units debt_ = 0;          // what its last turn cost beyond what it had
  Buffer* out_ = nullptr;
  bool isBlocked_ = false;
  bool hasStoppedReading_ = false;
  bool isQueued_ = false;
  bool isLetIn_ = false;
  Account* account_ = nullptr;
  common::Timer<&Connection::onStall> stallTimer_;
  common::Timer<&Connection::onFrameStall> frameTimer_;
  unsigned int framesBefore_ = 0;  // what reader_.frames() was when frameTimer_ was started
};

}  // namespace loader
