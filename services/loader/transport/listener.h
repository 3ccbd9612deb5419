#pragma once
// listener.h: the socket that processes connect to.

#include <functional>
#include <string>
#include <utility>

#include "kl/runner.h"
#include "logging/log.h"
#include "services/common/local_socket.h"
#include "transport/descriptors.h"

namespace loader {

// The loader's socket, and the folders that the system's fixed paths lie in.
//
// A process that connects only to be disconnected again takes the processor from everybody.  So not more than
// kMostFailures connections may come to nothing in a tick: after them nobody is accepted until the tick is over, and
// those who have registered have the rest of it for themselves.
//
// Errors:    open() gives the reason as a text.  When a connection cannot be taken, mostly because no descriptor is
//            left, that is one line on the log until the next one is, and nobody is accepted until it may work again:
//            when a connection has been closed, and every fifth of a second.
// Ownership: owns the socket and its file, which goes with it.
// Threads:   belongs to one thread.
// Cost:      two system calls for each connection.
class Listener {
 public:
  static constexpr unsigned int kMostFailures = 5;  // in a tick

  using OnConnection = std::function<void(Descriptor socket, common::Peer peer)>;

  Listener(kl::ThinRunner& runner, Log& log, OnConnection onConnection)
      : runner_(runner), log_(log), onConnection_(std::move(onConnection)) {}
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() { close(); }

  // Opens the socket; an empty text, or what went wrong.  A file that a killed loader left behind is replaced, a
  // loader that lives is not.
  std::string open();
  void close();

  // A descriptor has become free.
  void resume();

  // A connection was closed by its process's fault, or before it registered.
  void onFailure();

 private:
  void onConnect(int fd, unsigned int events);
  void pause(int errorNumber);
  void onTick();
  void watch();

  kl::ThinRunner& runner_;
  Log& log_;
  OnConnection onConnection_;
  common::ListeningSocket socket_;
  bool isPaused_ = false;
  bool isPauseLogged_ = false;
  kl::TimerPtr resumeTimer_;
  unsigned int failures_ = 0;  // in this tick
  bool isSlow_ = false;        // there were too many, and the log has a line
  kl::TimerPtr tickTimer_;     // runs while failures are counted
};

}  // namespace loader
