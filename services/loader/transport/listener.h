#pragma once
// listener.h: the socket that processes connect to.

#include <string>

#include "services/common/local_socket.h"
#include "transport/connection.h"

namespace loader {

// Takes the connections that come.
class ListenerHost {
 public:
  virtual void onConnection(Descriptor socket, Applicant who) = 0;
  // No connection can be taken for now; said once until the next one is.
  virtual void cannotAccept(int errorNumber) = 0;
  // So many connections come to nothing that new ones have to wait; said once until a tick has fewer.
  virtual void tooManyFail() = 0;

 protected:
  ~ListenerHost() = default;
};

// The loader's socket, and the folders that the system's fixed paths lie in.
//
// Who connects only to be thrown out again takes the processor from everybody.  So not more than kMostFailures
// connections may come to nothing in a tick: after them nobody is accepted until the tick is over, and those who have
// registered have the rest of it for themselves.
//
// Errors:    open() says what went wrong.  When a connection cannot be taken, mostly because no descriptor is left, its
//            host is told, and nobody is accepted until it may work again: when a connection has ended, and every fifth
//            of a second.
// Ownership: owns the socket and its file, which goes with it.
// Threads:   belongs to one thread.
// Cost:      two system calls for each connection.
class Listener {
 public:
  static constexpr unsigned int kMostFailures = 5;  // in a tick

  Listener(kl::ThinRunner& runner, ListenerHost& host) : runner_(runner), host_(host) {}
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() { close(); }

  // Opens the socket; an empty text, or what went wrong.  A file that a killed loader left behind is replaced, a
  // loader that lives is not.
  std::string open();
  void close();

  // A descriptor has become free.
  void resume();

  // A connection has ended by its process's fault, or before it registered.
  void cameToNothing();

 private:
  void onConnect(int fd, unsigned int events);
  void pause(int errorNumber);
  void onTick();
  void watch();

  kl::ThinRunner& runner_;
  ListenerHost& host_;
  common::ListeningSocket socket_;
  bool isPaused_ = false;
  bool isTold_ = false;  // that it cannot accept
  kl::TimerPtr resumeTimer_;
  unsigned int failures_ = 0;  // in this tick
  bool isSlow_ = false;        // told that too many fail
  kl::TimerPtr tickTimer_;     // runs while failures are counted
};

}  // namespace loader
