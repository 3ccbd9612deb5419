#pragma once
// listener.h: a socket that processes connect to.

#include <functional>
#include <string>
#include <utility>

#include "kl/runner.h"
#include "logging/log.h"
#include "services/common/local_socket.h"
#include "services/common/timer.h"
#include "transport/descriptors.h"

namespace loader {

// The loader's socket with the folders that the system's fixed paths lie in, or another one of the loader's.
//
// A pass takes at most kMostInAPass connections, so that whoever has to be turned away is turned away soon and those who
// have registered have the rest of the pass for themselves.
//
// Errors:    open() gives the reason as a text.  When a connection cannot be taken, mostly because no descriptor is
//            left, that is one line on the log until the next one is, and nobody is accepted until it may work again:
//            when a connection has been closed, and every fifth of a second.
// Ownership: owns the socket and its file, which goes with it.
// Threads:   belongs to one thread.
// Cost:      two system calls for each connection.
class Listener {
 public:
  static constexpr unsigned int kMostInAPass = 16;

  using OnConnection = std::function<void(Descriptor socket, common::Peer peer)>;

  Listener(kl::ThinRunner& runner, Log& log, OnConnection onConnection)
      : runner_(runner), log_(log), onConnection_(std::move(onConnection)), resumeTimer_(runner, *this) {}
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() { close(); }

  // Opens the socket; an empty text, or what went wrong.  A file that a killed loader left behind is replaced, a
  // loader that lives is not.
  std::string open();
  // The same for a socket at another path.  Needs: the folder exists.
  std::string openAt(const std::string& path, const common::SocketAccess& access);
  void close();
  bool isOpen() const { return socket_.isOpen(); }

  // A descriptor has become free.
  void resume();

 private:
  void onConnect(int fd, unsigned int events);
  bool acceptOne();
  void pause(int errorNumber);
  void watch();

  kl::ThinRunner& runner_;
  Log& log_;
  OnConnection onConnection_;
  common::ListeningSocket socket_;
  bool isPaused_ = false;
  bool isPauseLogged_ = false;
  common::Timer<&Listener::resume> resumeTimer_;
};

}  // namespace loader
