// What real users may do with real services.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"

namespace {

using kl::test::LoaderProcess;
using kl::test::RawPeer;
using kl::test::request;

constexpr uid_t kOrdinary = 65534;  // "nobody"

class RightsScenario : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  }

  // Runs a part of a test as an ordinary user, in a process of its own, with a peer that has registered.
  static bool holdsForNobody(const std::function<bool(RawPeer& peer)>& part) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      RawPeer peer;
      const bool isIn = ::setuid(kOrdinary) == 0 && peer.connect() && peer.registerAs(0) != 0;
      ::_exit(isIn && part(peer) ? 0 : 1);
    }
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

  // True when the request is answered with this error and this text.
  static bool isAnswered(RawPeer& peer, const kl::message& m, unsigned int code,
                         const std::string& text = "") {
    if (!peer.send(m)) return false;
    const auto answer = peer.receiveReply(m.get(kl::SYS_REQID, 0));
    unsigned int got = kl::ERROR_OK;
    if (answer) (void)kl::isError(*answer, &got);
    return answer && got == code && answer->get(kl::SYS_ERRSTR, "") == text;
  }

  static kl::message order(unsigned int action, unsigned int id = 40) {
    kl::message m = request({kl::SERVICE_LOADER}, kl::CMD_SETOBJ, 7);
    m.insert(kl::STD_ID, id);
    m.insert(kl::SVC_ACTION, action);
    return m;
  }
};

constexpr char kService[] = "[[service]]\nname = \"lab\"\nid = 40\n";

TEST_F(RightsScenario, EachOrderAtTheLoaderNeedsControl) {
  const LoaderProcess loader(std::string("[rights]\nnobody = [\"read\", \"change\"]\n") + kService);
  EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
    for (const unsigned int action : {kl::SVC_START, kl::SVC_STOP, kl::SVC_RESTART, kl::SVC_LEAVE})
      if (!isAnswered(peer, order(action), kl::ERROR_NOTALLOWED, "lacks the right control")) return false;
    return isAnswered(peer, request({kl::SERVICE_LOADER}, kl::CMD_GETALL, 8), kl::ERROR_OK);
  }));
  EXPECT_TRUE(
      loader.logs("CMD_SETOBJ to loader is not allowed: lacks the right control; see: klctl rights explain "
                  "nobody loader CMD_SETOBJ"));
}

TEST_F(RightsScenario, AccessOfTheLoaderSaysWhoMayOrderAndWhoMayLook) {
  {
    const LoaderProcess loader("[loader]\naccess = { nobody = [\"read\", \"control\"] }\n");
    EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
      return isAnswered(peer, order(kl::SVC_STOP, 999),
                        kl::ERROR_UNKNOWNID);  // it is not the right that it lacks
    }));
  }
  const LoaderProcess loader("[rights]\nnobody = \"all\"\n[loader]\naccess = { default = \"none\" }\n");
  EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
    return isAnswered(peer, request({kl::SERVICE_LOADER}, kl::CMD_GETALL, 8), kl::ERROR_NOTALLOWED,
                      "has no rights there");
  }));
}

TEST_F(RightsScenario, WithoutAnyRightAtAServiceNothingReachesIt) {
  const LoaderProcess loader(std::string("[rights]\nnobody = \"all\"\n") + kService +
                             "access = { nobody = \"none\" }\n");
  RawPeer lab;
  ASSERT_TRUE(lab.connect());
  ASSERT_EQ(lab.registerAs(40), 40u);
  EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
    return isAnswered(peer, request({40, 3}, kl::CMD_GET, 8), kl::ERROR_NOTALLOWED, "has no rights there");
  }));
  RawPeer root;
  ASSERT_TRUE(root.connect());
  ASSERT_NE(root.registerAs(0), 0u);
  ASSERT_TRUE(root.send(request({40, 3}, kl::CMD_SET, 9)));
  const auto first = lab.receiveCommand(kl::CMD_SET);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->get(kl::SYS_USER, ""), "root");
  EXPECT_TRUE(loader.logs("see: klctl rights explain nobody lab/3 CMD_GET"));
}

TEST_F(RightsScenario, ListedCommandsNeedWhatTheListSaysAndOthersAreRefused) {
  const LoaderProcess loader(std::string(kService) +
                             "commands = { \"0x60001\" = \"read\", \"0x60002\" = \"change\" }\n");
  RawPeer lab;
  ASSERT_TRUE(lab.connect());
  ASSERT_EQ(lab.registerAs(40), 40u);
  EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
    return isAnswered(peer, request({40}, 0x60002, 8), kl::ERROR_NOTALLOWED, "lacks the right change") &&
           isAnswered(peer, request({40}, 0x60003, 8), kl::ERROR_NOTALLOWED,
                      "sends a command that is not listed there") &&
           isAnswered(peer, request({40}, kl::CMD_SETOBJ, 8), kl::ERROR_NOTALLOWED,
                      "lacks the right change") &&
           peer.send(request({40}, 0x60001, 8)) && peer.send(request({40}, kl::CMD_GETALL, 9));
  }));
  for (const unsigned int command : {0x60001u, kl::CMD_GETALL}) {
    const auto got = lab.receiveCommand(command);
    ASSERT_TRUE(got) << command;
    EXPECT_EQ(got->get(kl::SYS_POLICY, 0), 64u);
    EXPECT_EQ(got->get(kl::SYS_USER, ""), "nobody");
  }
  RawPeer root;
  ASSERT_TRUE(root.connect());
  ASSERT_NE(root.registerAs(0), 0u);
  ASSERT_TRUE(root.send(request({40}, 0x60003, 9)));
  EXPECT_TRUE(lab.receiveCommand(0x60003));
}

TEST_F(RightsScenario, AnOrdinaryUserGetsNoIdThatItAsksFor) {
  const LoaderProcess loader;
  for (const unsigned int id : {17u, 24u, 500u, 0x10000u, 0x12345u})
    EXPECT_TRUE(holdsForNobody([id](RawPeer&) {
      RawPeer second;
      return second.connect() && second.registerAs(id) == 0 && second.isDisconnected();
    })) << id;
  EXPECT_TRUE(loader.logs("asks for the id 17, which nobody is configured for"));
  EXPECT_TRUE(loader.logs("asks for the id 65536, which is for the loader to pick"));
}

}  // namespace
