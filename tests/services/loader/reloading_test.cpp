// The configuration, read anew while services run.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/services/loader/supervision.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"
#include "tests/support/process/child_process.h"

namespace {

using kl::test::ChildProcess;
using kl::test::LoaderProcess;
using kl::test::Pipe;
using kl::test::RawPeer;
using kl::test::request;
using kl::test::service;
using Names = std::vector<std::string>;

class Reloading : public kl::test::Supervision {
 protected:
  static constexpr uid_t kOrdinary = 65534;  // "nobody"

  kl::message reload() {
    const unsigned int id = nextId_++;
    EXPECT_TRUE(a_.send(request({kl::SERVICE_LOADER}, kl::CMD_RELOAD, id, {7})));
    return a_.receiveReply(id).value_or(kl::message());
  }

  kl::message reload(const LoaderProcess& loader, const std::string& configuration) {
    loader.configure(configuration);
    return reload();
  }

  bool goes(unsigned int id) {
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (errorOf(row(id)) != kl::ERROR_UNKNOWNID) {
      if (Clock::now() >= end) return false;
      ::usleep(2000);
    }
    return true;
  }

  pid_t pidOf(unsigned int id) { return static_cast<pid_t>(row(id).get(kl::SVC_PID, 0)); }
};

TEST_F(Reloading, TheSignalOfALostTerminalReadsIt) {
  const LoaderProcess loader;
  connect();
  loader.configure(service("echo", 32, "serve"));
  loader.signal(SIGHUP);
  EXPECT_TRUE(loader.logs("has read its configuration anew: 1 started")) << loader.log();
  EXPECT_TRUE(askUntilAnswered({32, 3}));
}

TEST_F(Reloading, ServicesThatAreAsTheyWereDoNotNotice) {
  const std::string same = service("same", 32, "serve");
  const LoaderProcess loader(same + service("other", 33, "serve"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32, 3}));
  ASSERT_TRUE(askUntilAnswered({33, 3}));
  const kl::message before = row(32);
  const kl::message reply =
      reload(loader, same + service("other", 33, "serve", "environment = { KL_TEST = \"b\" }") +
                         service("new", 34, "serve"));
  EXPECT_EQ(reply.get(kl::RELOAD_RESTARTED, {}), Names{"other"});
  EXPECT_EQ(reply.get(kl::RELOAD_STARTED, {}), Names{"new"});
  EXPECT_EQ(reply.get(kl::RELOAD_UNCHANGED, 0), 1u);
  EXPECT_FALSE(reply.has(kl::RELOAD_ENDED));
  const auto told = a_.receiveCommand(kl::CMD_DISCONNECTED);
  ASSERT_TRUE(told);
  EXPECT_EQ(told->get(kl::SYS_FROM, {}), Ids{33});
  EXPECT_TRUE(askUntilAnswered({33, 3}));
  EXPECT_TRUE(askUntilAnswered({34, 3}));
  EXPECT_EQ(row(33).get(kl::SVC_STARTS, 0), 2u);
  const kl::message after = row(32);
  EXPECT_EQ(after.get(kl::SVC_PID, 0), before.get(kl::SVC_PID, 1));
  EXPECT_EQ(after.get(kl::SVC_STARTS, 0), 1u);
}

TEST_F(Reloading, AChangeForTheLoaderAloneRestartsNobody) {
  const LoaderProcess loader(service("echo", 32, "serve"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32, 3}));
  const pid_t pid = pidOf(32);
  const kl::message reply = reload(
      loader, "[loader]\nqueue_limit = 5000\n" + service("echoes", 32, "serve", "restart = \"never\""));
  EXPECT_EQ(reply.get(kl::RELOAD_ADJUSTED, {}), Names{"echoes"});
  EXPECT_EQ(reply.get(kl::RELOAD_LATER, {}), Names{"loader.queue_limit"});
  EXPECT_TRUE(loader.logs("loader.queue_limit: changes when the loader starts"));
  EXPECT_EQ(row(32).get(kl::SVC_NAME, ""), "echoes");
  EXPECT_EQ(pidOf(32), pid);
  ::kill(pid, SIGKILL);
  EXPECT_TRUE(reachesState(32, kl::SVC_STATE_STOPPED));  // by its new rule
}

TEST_F(Reloading, AMistakeLeavesEverythingAsItIs) {
  const LoaderProcess loader(service("echo", 32, "serve"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32, 3}));
  const pid_t pid = pidOf(32);
  const kl::message reply = reload(loader, "[loader]\nqueue_limt = 5000\n");
  EXPECT_EQ(errorOf(reply), kl::ERROR_FAILED);
  EXPECT_NE(reply.get(kl::SYS_ERRSTR, "").find("kl-loader.toml:2: "), std::string::npos)
      << reply.get(kl::SYS_ERRSTR, "");
  EXPECT_TRUE(loader.logs("keeps its configuration, as the new one has mistakes"));
  EXPECT_EQ(pidOf(32), pid);
  EXPECT_EQ(reload(loader, service("echo", 32, "serve")).get(kl::RELOAD_UNCHANGED, 0), 1u);
}

TEST_F(Reloading, AServiceThatIsGoneEndsAndItsCallersAreAnswered) {
  const LoaderProcess loader(service("silent", 33, "hide"));
  connect();
  ASSERT_TRUE(reachesState(33, kl::SVC_STATE_STARTING));
  const pid_t pid = pidOf(33);
  ASSERT_TRUE(a_.send(request({33, 1}, kl::CMD_GET, 77, {7})));  // held for it
  EXPECT_EQ(reload(loader, "").get(kl::RELOAD_ENDED, {}), Names{"silent"});
  EXPECT_EQ(errorOf(a_.receiveReply(77)), kl::ERROR_BRKPATH);
  EXPECT_TRUE(endsInTime(pid));
  EXPECT_TRUE(goes(33));
}

TEST_F(Reloading, AServiceThatNobodyStartsGoesAtOnce) {
  const LoaderProcess loader(
      "[[service]]\nname = \"guest\"\nid = 40\n[[service]]\nname = \"nobody\"\nid = 41\n");
  connect();
  RawPeer guest = RawPeer::registered(40);
  (void)reload(loader, "");
  EXPECT_TRUE(guest.isDisconnected());
  EXPECT_TRUE(goes(40));
  EXPECT_TRUE(goes(41));
}

TEST_F(Reloading, WhoHasTheIdOfANewServiceMakesRoomForIt) {
  const LoaderProcess loader;
  connect();
  RawPeer stranger = RawPeer::registered(600);
  (void)reload(loader, service("new", 600, "serve"));
  EXPECT_TRUE(stranger.isDisconnected());
  EXPECT_TRUE(askUntilAnswered({600, 3}));
}

TEST_F(Reloading, AServiceThatComesBackWaitsForTheEndOfItsFormerProcess) {
  const LoaderProcess loader(service("echo", 32, "stubborn"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32, 3}));
  const pid_t former = pidOf(32);
  (void)reload(loader, "");
  EXPECT_EQ(act(32, kl::SVC_START), kl::ERROR_FAILED);
  (void)reload(loader, service("echo", 32, "serve"));
  (void)reload();
  EXPECT_TRUE(endsInTime(former));
  EXPECT_TRUE(reachesState(32, kl::SVC_STATE_RUNNING));
  EXPECT_NE(pidOf(32), former);
}

TEST_F(Reloading, AServiceThatWasStoppedStaysStopped) {
  const LoaderProcess loader(service("echo", 32, "serve"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32, 3}));
  ASSERT_EQ(act(32, kl::SVC_STOP), kl::ERROR_OK);
  ASSERT_TRUE(reachesState(32, kl::SVC_STATE_STOPPED));
  (void)reload(loader, service("echo", 32, "serve", "folder = \"/tmp\""));
  EXPECT_EQ(row(32).get(kl::SVC_STARTS, 0), 1u);
  EXPECT_EQ(row(32).get(kl::SVC_STATE, 0), kl::SVC_STATE_STOPPED);
}

TEST_F(Reloading, AServiceThatMayNowBeStartedByAMessageIs) {
  const LoaderProcess loader(service("echo", 32, "serve", "start = false"));
  connect();
  (void)reload(loader, service("echo", 32, "serve", "start = \"demand\""));
  EXPECT_TRUE(ask({32, 3}));
  EXPECT_EQ(row(32).get(kl::SVC_STARTS, 0), 1u);
}

TEST_F(Reloading, ManyUnderTrafficLoseNothing) {
  const std::string echo = service("echo", 32, "serve");
  const LoaderProcess loader(echo);
  connect();
  ASSERT_TRUE(askUntilAnswered({32, 3}));
  RawPeer busy = RawPeer::registered();
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(busy.send(request({32, 3}, kl::CMD_GET, 5000, {7})));
    ASSERT_FALSE(kl::isError(reload(loader, echo + (i % 2 == 0 ? service("more", 33, "serve") : ""))));
    const auto answer = busy.receiveReply(5000);
    ASSERT_TRUE(answer && !kl::isError(*answer)) << i;
  }
  EXPECT_EQ(row(32).get(kl::SVC_STARTS, 0), 1u);
  EXPECT_TRUE(goes(33));
}

TEST_F(Reloading, AnIdThatIsAnotherUsersNowIsTakenFromTheFormerOne) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const std::string guest = "[[service]]\nname = \"guest\"\nid = 40\n";
  const LoaderProcess loader(guest + "user = \"nobody\"\n");
  connect();
  ChildProcess formerOne([] {
    RawPeer peer;
    const bool isIn = ::setuid(kOrdinary) == 0 && peer.connect() && peer.registerAs(40) == 40;
    ::_exit(isIn && peer.isDisconnected() ? 0 : 1);
  });
  EXPECT_TRUE(reachesState(40, kl::SVC_STATE_REGISTERED));
  EXPECT_EQ(reload(loader, guest + "user = \"daemon\"\n").get(kl::RELOAD_RESTARTED, {}), Names{"guest"});
  EXPECT_EQ(formerOne.waitForEnd(), 0);
}

TEST_F(Reloading, RightsChangeFromTheNextRequestOn) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const std::string echo = service("echo", 32, "serve", "commands = { CMD_SET = \"change\" }");
  const LoaderProcess loader("[rights]\ndefault = \"read\"\n" + echo);
  connect();
  ASSERT_TRUE(askUntilAnswered({32, 3}));
  Pipe questions;
  Pipe answers;
  const ChildProcess user([&] {
    RawPeer peer;
    bool isIn = ::setuid(kOrdinary) == 0 && peer.connect() && peer.registerAs(0) != 0;
    while (isIn && questions.hear<char>()) {
      isIn = peer.send(request({32, 3}, kl::CMD_SET, 8));
      answers.say(errorOf(peer.receiveReply(8)));
    }
  });
  const auto isRefused = [&] {
    questions.say('?');
    const auto answer = answers.hear<unsigned int>();
    EXPECT_TRUE(answer);
    return answer == kl::ERROR_NOTALLOWED;
  };
  EXPECT_TRUE(isRefused());
  EXPECT_EQ(
      reload(loader, "[rights]\ndefault = [\"read\", \"change\"]\n" + echo).get(kl::RELOAD_ADJUSTED, {}),
      Names{"[rights]"});
  EXPECT_FALSE(isRefused());
  (void)reload(loader, "[rights]\ndefault = \"read\"\n" + echo);
  EXPECT_TRUE(isRefused());
}

}  // namespace
