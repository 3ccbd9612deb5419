#pragma once
// supervision.h: services that the loader starts, and a peer that watches them.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/builders.h"
#include "tests/support/doubles/raw_peer.h"

namespace kl::test {

// One configured service that runs the test's program.
inline std::string service(const std::string& name, unsigned int id, const std::string& behaviour,
                           const std::string& more = "",
                           const std::string& program = KL_BIN_DIR "/kl-test-service") {
  std::string words = "\"" + program + "\"";
  for (std::size_t begin = 0; begin <= behaviour.size();) {
    const std::size_t end = std::min(behaviour.find(' ', begin), behaviour.size());
    words += ", \"" + behaviour.substr(begin, end - begin) + "\"";
    begin = end + 1;
  }
  return "[[service]]\nname = \"" + name + "\"\nid = " + std::to_string(id) + "\ncommand = [" + words +
         "]\n" + more + "\n";
}

class Supervision : public testing::Test {
 protected:
  using Clock = std::chrono::steady_clock;
  using Ids = std::vector<unsigned int>;

  void connect() {
    ASSERT_TRUE(a_.connect());
    ASSERT_EQ(a_.registerAs(500), 500u);
  }

  std::optional<kl::message> ask(const Ids& to, unsigned int command = kl::CMD_GET) {
    const unsigned int id = nextId_++;
    if (!a_.send(request(to, command, id, {7}))) return {};
    return a_.receiveReply(id);
  }

  // Asks until the answer is no error.
  std::optional<kl::message> askUntilAnswered(const Ids& to) {
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (Clock::now() < end) {
      const auto answer = ask(to);
      if (answer && !kl::isError(*answer)) return answer;
      ::usleep(5000);
    }
    return {};
  }

  static unsigned int errorOf(const std::optional<kl::message>& m) {
    unsigned int code = kl::ERROR_OK;
    if (m) (void)kl::isError(*m, &code);
    return code;
  }

  kl::message row(unsigned int id) {
    kl::message m = request({1}, kl::CMD_GETOBJ, 9999, {7});
    m.insert(kl::STD_ID, id);
    EXPECT_TRUE(a_.send(m));
    return a_.receiveReply(9999).value_or(kl::message());
  }

  bool reachesState(unsigned int id, unsigned int state) {
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (row(id).get(kl::SVC_STATE, 0) != state) {
      if (Clock::now() >= end) return false;
      ::usleep(2000);
    }
    return true;
  }

  // A process that nobody has waited for yet has ended, too.
  static bool endsInTime(pid_t pid) {
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (Clock::now() < end) {
      std::ifstream in("/proc/" + std::to_string(pid) + "/status");
      const std::string text((std::istreambuf_iterator<char>(in)), {});
      if (text.empty() || text.find("State:\tZ") != std::string::npos) return true;
      ::usleep(2000);
    }
    return false;
  }

  unsigned int act(unsigned int id, unsigned int action) {
    kl::message m = request({1}, kl::CMD_SETOBJ, 9998, {7});
    m.insert(kl::STD_ID, id);
    m.insert(kl::SVC_ACTION, action);
    EXPECT_TRUE(a_.send(m));
    return errorOf(a_.receiveReply(9998));
  }

  void shutdownService(unsigned int id, unsigned int status) {
    kl::message m;
    m.insert(kl::SYS_TO, {id});
    m.insert(kl::SYS_CMD, kl::CMD_SHUTDOWN);
    m.insert_u32(0x08000001, status);
    ASSERT_TRUE(a_.send(m));
  }

  RawPeer a_;
  unsigned int nextId_ = 1;
};

}  // namespace kl::test
