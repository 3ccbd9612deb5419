#pragma once
// listener.h: the socket that processes log to.

#include "services/common/local_socket.h"

namespace logd {

// The log service's socket at its place, /kelo/logs/logsocket.
class Listener : public common::ListeningSocket {
 public:
  // Makes the folder and opens the socket; an empty text, or what went wrong.
  std::string open();
};

}  // namespace logd
