#pragma once
// connection.h: the socket of one process.

#include <string>

#include "admission/registration.h"
#include "kl/runner.h"
#include "transport/descriptors.h"
#include "transport/frame_reader.h"

namespace loader {

class Connection;

// What connections need of the loader around them.
class ConnectionHost {
 public:
  // Frames that one read brought are coming.
  virtual void onBatch() = 0;
  // One frame's body.  Null, or what makes it a reason to disconnect.
  virtual const char* onFrame(Connection& connection, std::span<const unsigned char> body) = 0;
  // A connection that has not registered can be read: serve() is to be called when its turn comes.
  virtual void onStranger(Connection& connection) = 0;
  // The connection is of no use any more; the reason is empty when the other side just closed it.  Calls end().
  virtual void onEnd(Connection& connection, const std::string& reason) = 0;
  // At the end of every callback: what it put into queues is to be written.
  virtual void settle() = 0;

 protected:
  ~ConnectionHost() = default;
};

// How patient a connection is with a process that does not read.
struct Patience {
  std::size_t queueLimit;
  unsigned int stallTicks;  // also with one that does not end its frame or does not register; 0: without end
};

// Reads frames, and writes its service's queue.
//
// C1  poll asks for POLLOUT exactly while the last write did not take everything (isBlocked_)
// C2  the stall timer runs while the queue is at its limit, and any byte written begins it anew; and from the beginning
//     of a connection at the socket until its process has registered
// C3  what a process makes the loader keep of its input is at most one frame of kMaxFrameBytes, for a bounded time:
//     the frame timer runs while a frame is unfinished, and a frame that it meets twice ends the connection
//
// Errors:    reported to the host as the end of the connection, once.
// Ownership: owns the descriptor; borrows everything else.
// Threads:   belongs to one thread.
// Cost:      one read for many frames, one write for everything that is queued.
class Connection {
 public:
  Connection(kl::ThinRunner& runner, ConnectionHost& host, ReadArea& area, Descriptor socket, Applicant who,
             Patience patience);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { end(); }

  const Applicant& who() const { return who_; }
  Service* service() const { return service_; }  // null until it has registered
  bool isOpen() const { return socket_.isOpen(); }
  // Came to the socket and has not said who it is.
  bool isUnknown() const { return isOpen() && service_ == nullptr && who_.startedAs == nullptr; }

  // The process is now this service.
  void becomes(Service& service);

  // Reads once, and handles what it brings.
  void serve();
  // Strangers' mark that it stands in their line.
  bool isInLine() const { return isInLine_; }
  void setInLine(bool isInLine) { isInLine_ = isInLine; }

  // Something new is in the service's queue.
  void onNews();

  // Reads what is still there, frame by frame, until there is nothing more.  The process has ended.
  void drain();

  // Closes the socket and forgets the service.
  void end();

 private:
  void onEvent(int fd, unsigned int events);
  bool readOnce();
  void handleFrames();
  const char* whatIsTooLong() const;
  void write();
  void giveUpWriting();
  void setBlocked(bool isBlocked);
  void watchProgress(bool hasProgress);
  void onStall();
  void watchFrame();
  void onFrameStall();
  void endTimer(kl::TimerPtr& timer);

  kl::ThinRunner& runner_;
  ConnectionHost& host_;
  Descriptor socket_;
  Applicant who_;
  Patience patience_;
  FrameReader reader_;
  Service* service_ = nullptr;
  bool isBlocked_ = false;
  bool isInLine_ = false;
  kl::TimerPtr stallTimer_;
  kl::TimerPtr frameTimer_;
  unsigned int framesBefore_ = 0;  // what reader_.frames() was when frameTimer_ was started
};

}  // namespace loader
