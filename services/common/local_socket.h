#pragma once
// local_socket.h: stream sockets that have a place in the file system.

#include <sys/types.h>

#include <string>

#include "services/common/descriptor.h"

struct sockaddr_un;

namespace common {

// The address of a path; false when the path is too long for one.
bool fillAddress(const std::string& path, sockaddr_un& address);

// A new stream socket, non-blocking and close-on-exec; not open when there is none, with errno.
Descriptor newStreamSocket();

// Connects at once or not at all; false with errno.
bool connectTo(int fd, const std::string& path);

// The process at the other end of a connection, as the kernel reports it: who connected, or to who connected, who made
// the socket listen.
struct Peer {
  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);  // nobody's if the kernel does not report it
};
Peer peerOf(int fd);

// The users who may connect: all of them, unless it is said otherwise.
struct SocketAccess {
  static constexpr gid_t kOwnGroup = static_cast<gid_t>(-1);

  mode_t mode = 0666;
  gid_t group = kOwnGroup;
};

// A socket at its place in the file system that processes of other users may connect to.  It takes the place of one
// that a killed process left in one step, so that there is no moment without one; one that somebody listens at is not
// replaced.
//
//     common::ListeningSocket socket;
//     if (const std::string problem = socket.open(path, 256, "a loader"); !problem.empty()) ...
//     while (Descriptor connection = socket.accept(); connection.isOpen()) ...
//
// Errors:    open() gives the reason as a text.
// Ownership: owns the socket and its file, which goes with it.
// Threads:   belongs to one thread.
// Cost:      one system call a connection.
class ListeningSocket {
 public:
  ListeningSocket() = default;
  ListeningSocket(const ListeningSocket&) = delete;
  ListeningSocket& operator=(const ListeningSocket&) = delete;
  ~ListeningSocket() { close(); }

  // Opens the socket, with room for `backlog` pending connections; an empty text, or "PATH: what went wrong".
  // `owner` is the name that the text gives to a process that listens already.  Needs: the folder exists, the socket
  // is not open.
  std::string open(const std::string& path, int backlog, const std::string& owner,
                   const SocketAccess& access = {});
  void close();

  bool isOpen() const { return socket_.isOpen(); }
  int fd() const { return socket_.get(); }

  // The next connection that waits, non-blocking; not open when there is none, with errno.
  Descriptor accept() const;

 private:
  Descriptor socket_;
  std::string path_;
};

}  // namespace common
