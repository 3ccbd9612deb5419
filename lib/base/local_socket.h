#pragma once
// local_socket.h: connections to the services of this machine.

namespace kl {

// A stream socket, closed on exec.  -1 with errno.
int openLocalSocket();

// Connects it to the service that listens at a path.  False with errno; ENAMETOOLONG for a path that no socket has.
bool connectLocalSocket(int fd, const char* path);

}  // namespace kl
