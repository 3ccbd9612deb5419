#pragma once
// system.h: a loader with a log service, and those who talk to it.  Needs: a private root.

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "kl/field.h"
#include "kl/message.h"
#include "services/common/descriptor.h"
#include "tests/services/logd/fixture.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"

namespace logd::test {

// Looks again and again until it holds or 20 s are over.
bool comesTrue(const std::function<bool()>& condition);

// A process at the log socket that speaks in bytes.  Waits until there is a socket.
class LogClient {
 public:
  LogClient();

  int fd() const { return fd_.get(); }
  bool write(const Bytes& bytes);
  Bytes read(std::size_t count);  // fewer when no more come within 5 s
  bool isDisconnected();          // within 5 s
  void close() { fd_.close(); }

 private:
  common::Descriptor fd_;
};

// While it lives, connections are made as another user.  Needs: to be root.
class AsUser {
 public:
  explicit AsUser(unsigned int uid);
  ~AsUser();
  AsUser(const AsUser&) = delete;
  AsUser& operator=(const AsUser&) = delete;
};

// The loader runs the log service with a configuration of the test's; what it is asked, a service of the test's asks.
class System {
 public:
  explicit System(const std::string& logConfiguration, const std::string& loaderSettings = "");

  // The process of the log service; waits until it runs.  `otherThan` is one that has ended.
  pid_t logService(pid_t otherThan = 0);

  kl::message ask(const std::vector<unsigned int>& to, unsigned int command, kl::message request = {});
  void subscribe(const std::vector<unsigned int>& to, kl::message filter = {});
  kl::test::RawPeer& peer() { return peer_; }
  kl::test::LoaderProcess& loader() { return *loader_; }

  // A peer of its own for an ordinary user: what is asked from now on, he asks.
  void become(unsigned int uid);

  // All lines in memory that pass a filter.
  std::vector<kl::message> lines(const kl::message& filter = {});
  // Waits until one has the text in it.
  bool hasLine(const std::string& text);
  void mute(unsigned int topic, bool muted);
  // A figure that CMD_GET tells.
  unsigned long long figure(kl::field<unsigned long long> field);

 private:
  std::unique_ptr<kl::test::LoaderProcess> loader_;
  kl::test::RawPeer peer_;
  unsigned int requests_ = 0;
};

}  // namespace logd::test
