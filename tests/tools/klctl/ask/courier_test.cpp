#include "tools/klctl/ask/courier.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "kl/conventions.h"
#include "kl/utilities.h"
#include "tests/support/doubles/loader_double.h"
#include "tests/support/process/child.h"
#include "tests/tools/klctl/scripted_loader.h"
#include "tools/klctl/ask/pipe.h"

namespace klctl {
namespace {

// A courier whose two partners have said all that they will say before it starts.
class Courier : public testing::Test {
 protected:
  Courier() {
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, loaderPair_), 0);
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, klctlPair_), 0);
  }

  void order(Order::Kind kind, const kl::message& m) {
    const Order head{kind, 1000};
    Bytes message;
    m.flatten(message);
    Bytes bytes(sizeof head);
    std::memcpy(bytes.data(), &head, sizeof head);
    bytes.insert(bytes.end(), message.begin(), message.end());
    EXPECT_TRUE(sendBytes(klctlPair_[0], bytes));
  }

  // Runs it until it ends: klctl says nothing more.
  kl::test::ChildResult run() {
    ::shutdown(klctlPair_[0], SHUT_WR);
    return kl::test::runInChild([this] { runCourier(loaderPair_[1], klctlPair_[1]); });
  }

  int loaderPair_[2] = {};
  int klctlPair_[2] = {};
};

}  // namespace

TEST_F(Courier, RegistersAndEndsWithKlctl) {
  kl::test::LoaderDouble loader(loaderPair_[0]);
  loader.sendReady();
  const auto result = run();
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(loader.receive().get(kl::SYS_CTRL, 0), 5u);
  Bytes bytes{1};
  EXPECT_EQ(receiveBytes(klctlPair_[0], bytes, std::chrono::steady_clock::now()), Received::kWhole);
  EXPECT_TRUE(bytes.empty());
}

TEST_F(Courier, TheLibrarysLinesStayOffTheStandardOutput) {
  kl::test::LoaderDouble loader(loaderPair_[0]);
  loader.close();
  const auto result = run();
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err, "");
  EXPECT_NE(result.exitStatus, 0);
}

TEST_F(Courier, CarriesAReplyBack) {
  kl::test::LoaderDouble loader(loaderPair_[0]);
  loader.sendReady();
  kl::message reply;  // to the first request of a process, which has the id 0
  kl::setType(reply, kl::TYPE_REPLY);
  kl::setRequestID(reply, 0);
  reply.insert(kl::STD_ID, 7);
  loader.send(reply);
  kl::message request;
  request.insert(kl::SYS_TO, {32});
  order(Order::kExchange, request);
  EXPECT_EQ(run().exitStatus, 0);
  Bytes bytes;
  const Deadline now = std::chrono::steady_clock::now();
  EXPECT_EQ(receiveBytes(klctlPair_[0], bytes, now), Received::kWhole);  // registered
  EXPECT_EQ(receiveBytes(klctlPair_[0], bytes, now), Received::kWhole);
  EXPECT_EQ(kl::message(bytes).get(kl::STD_ID, 0), 7u);
}

TEST_F(Courier, AbortsOfTheLibraryLeaveNoCoreBehind) {
  kl::test::LoaderDouble loader(loaderPair_[0]);
  kl::message m;
  m.insert(kl::SYS_CTRL, 9);  // no confirmation
  loader.send(m);
  const rlimit cores{RLIM_INFINITY, RLIM_INFINITY};
  (void)::setrlimit(RLIMIT_CORE, &cores);
  const std::string folder = kl::underRoot("/ram/cores");
  ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
  ASSERT_EQ(::chdir(folder.c_str()), 0);
  EXPECT_NE(run().exitStatus, 0);
  ASSERT_EQ(::chdir("/"), 0);
  EXPECT_EQ(::rmdir(folder.c_str()), 0) << "a core file is there";
}

// How a loader that is missing or wrong is told stands in session_test.cpp.
TEST(CourierProcess, RunsUntilItIsEnded) {
  const ScriptedLoader loader([](kl::test::LoaderDouble& connection) {
    confirm(connection);
    awaitEnd(connection);
  });
  CourierProcess courier(kAmple, runCourier);
  EXPECT_GE(courier.socket(), 0);
  courier.end();
  EXPECT_EQ(courier.socket(), -1);
  courier.end();
}

TEST(CourierProcess, IsRegisteredWhenItSaysSo) {
  const ScriptedLoader loader([](kl::test::LoaderDouble& connection) { awaitEnd(connection); });
  const CourierProcess courier(kAmple, [](int, int klctl) {
    (void)sendBytes(klctl, {});
    (void)sendBytes(klctl, {7});
    ::pause();
  });
  Bytes bytes;
  EXPECT_EQ(receiveBytes(courier.socket(), bytes, {}), Received::kWhole);
  EXPECT_EQ(bytes, Bytes{7});
}

TEST(CourierProcess, TimesAreToldWithoutNeedlessDigits) {
  EXPECT_EQ(secondsText(std::chrono::milliseconds(5000)), "5 s");
  EXPECT_EQ(secondsText(std::chrono::milliseconds(200)), "0.2 s");
  EXPECT_EQ(secondsText(std::chrono::milliseconds(1050)), "1.05 s");
}

TEST(CourierProcess, TicksAreRoundedUp) {
  EXPECT_EQ(ticksOf(std::chrono::milliseconds(10)), 1);
  EXPECT_EQ(ticksOf(std::chrono::milliseconds(11)), 2);
}

}  // namespace klctl
