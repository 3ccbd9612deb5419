#pragma once
// silent_connection.h: what makes a row count as connected where no process is.

#include <sys/socket.h>

#include <span>
#include <string>

#include "services/loader/transport/connection.h"

namespace loader::test {

// An open connection that nothing comes from, in a loop that does not run.  A row that has it counts as connected.
class SilentConnection final : public ConnectionHost {
 public:
  static Connection& get() {
    static SilentConnection silent;
    return silent.connection_;
  }

  void onBatch() override {}
  const char* onFrame(std::span<const unsigned char>) override { return nullptr; }
  void onPendingReadable() override {}
  void onConnectionClosed(const std::string&) override {}
  void writeQueues() override {}

 private:
  static Descriptor newSocket() { return Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

  kl::ThinRunner runner_;
  Sockets sockets_{runner_};
  ReadArea area_;
  Work work_;
  Turns turns_{work_};
  Connection connection_{sockets_, *this, area_, turns_, newSocket(), Connection::Origin::kAccepted, {0, 0}};
};

}  // namespace loader::test
