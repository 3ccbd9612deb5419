#pragma once
// tests/scenarios/fixture.h: a loader with kl-test-table, and peers around it.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/scenarios/table_service.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"

namespace scenarios {

using Ids = std::vector<unsigned int>;
using kl::test::LoaderProcess;
using kl::test::RawPeer;

inline constexpr int kPatienceMs = 60000;
inline const Ids kTable = {table::kService, table::kHandler};

inline std::string tableService(const std::string& behaviour = "") {
  return "[[service]]\nname = \"table\"\nid = 40\ncommand = [\"" KL_BIN_DIR "/kl-test-table\"" +
         (behaviour.empty() ? "" : ", \"" + behaviour + "\"") + "]\n";
}

// A connection that asks and waits; what is not the reply is thrown away.
class Driver {
 public:
  Driver() {
    EXPECT_TRUE(peer_.connect(kPatienceMs));
    EXPECT_NE(peer_.registerAs(0), 0u);
  }

  kl::message ask(const Ids& to, unsigned int command, kl::message m = {}) {
    const unsigned int id = nextId_++;
    m.merge(kl::test::request(to, command, id));
    EXPECT_TRUE(peer_.send(m));
    const auto reply = peer_.receiveReply(id, kPatienceMs);
    EXPECT_TRUE(reply);
    return reply.value_or(kl::message());
  }

  // The service's row in the loader's table.
  kl::message row(unsigned int service) {
    kl::message m;
    m.insert(kl::STD_ID, service);
    return ask({kl::SERVICE_LOADER}, kl::CMD_GETOBJ, m);
  }

  void act(unsigned int service, unsigned int action) {
    kl::message m;
    m.insert(kl::STD_ID, service);
    m.insert(kl::SVC_ACTION, action);
    (void)ask({kl::SERVICE_LOADER}, kl::CMD_SETOBJ, m);
  }

  // Ends the service's process as a crash would, and starts it again at once.
  void crash(unsigned int service) {
    const unsigned int pid = row(service).get(kl::SVC_PID, 0);
    ASSERT_GT(pid, 0u);
    ASSERT_EQ(::kill(static_cast<pid_t>(pid), SIGKILL), 0);
    while (row(service).get(kl::SVC_PID, 0) == pid) {  // the loader may start it sooner than anybody looks
    }
    act(service, kl::SVC_START);
  }

 private:
  RawPeer peer_;
  unsigned int nextId_ = 1;
};

inline Ids idsOf(const kl::message& m) {
  Ids ids;
  for (const kl::message object : m.get(kl::STD_OBJS, {})) ids.push_back(object.get(kl::STD_ID, kl::BADID));
  return ids;
}

}  // namespace scenarios
