// klctl trace: the lines, and the program with a real loader.

#include "tools/klctl/verbs/trace.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "services/common/tap.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"
#include "tests/support/process/child.h"
#include "tests/support/process/running_program.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"

namespace klctl {
namespace {

namespace tap = common::tap;
using kl::test::LoaderProcess;
using kl::test::RawPeer;
using kl::test::replyTo;
using kl::test::request;
using kl::test::RunningProgram;
using kl::test::runProgram;

constexpr char kKlctl[] = KL_BIN_DIR "/klctl";

struct Trace : testing::Test {
  static kl::message message(unsigned int from, unsigned int to, unsigned long long at) {
    kl::message m;
    m.insert(tap::AT, at);
    m.insert(tap::SENDER, from);
    m.insert(tap::RECEIVERS, {to});
    m.insert(tap::COMMAND, kl::CMD_GETALL);
    m.insert(tap::NUMBER, 17);
    m.insert(tap::LENGTH, 36);
    return m;
  }
  static kl::message reply(unsigned int from, unsigned int to, unsigned long long at) {
    kl::message m = message(from, to, at);
    m.insert(tap::ANSWER, true);
    m.insert(tap::AGE, 20);
    return m;
  }
  static OpenRequests services(const std::string& name = "netif") {
    OpenRequests services;
    services.services[32].name = name;
    services.services[28].name = "web";
    return services;
  }

  CommandLine line = parsed({"trace"});
  TraceReport report{line, services()};
};

TEST_F(Trace, ARefusalDoesNotSayWhatWasAsked) {
  kl::message refusal = reply(32, 28, 7'412'000);
  refusal.remove(tap::COMMAND);
  refusal.insert(tap::ERROR, kl::ERROR_BUSY);
  const std::string text = report.lineOf(refusal);
  EXPECT_NE(text.find("  reply  error: std failure: busy (12)"), std::string::npos) << text;
}

TEST_F(Trace, ALineSaysWhoSendsWhatToWhom) {
  const std::string text = report.lineOf(message(28, 32, 7'412'000));
  EXPECT_NE(text.find(":07.412  web -> netif  "), std::string::npos) << text;
  EXPECT_TRUE(text.ends_with("  CMD_GETALL, 36 bytes  #17\n")) << text;
}

TEST_F(Trace, AReplyHasItsExactAgeWhereItsRequestWasSeen) {
  EXPECT_TRUE(
      report.lineOf(reply(32, 28, 9'000'000)).ends_with("  reply CMD_GETALL, 36 bytes  20 ms  #17\n"));
  (void)report.lineOf(message(28, 32, 10'000'000));
  EXPECT_TRUE(
      report.lineOf(reply(32, 28, 10'018'900)).ends_with("  reply CMD_GETALL, 36 bytes  18.9 ms  #17\n"));
}

TEST_F(Trace, AnErrorIsSaidAndWhoMadeIt) {
  kl::message m = reply(32, 28, 1);
  m.remove(tap::AGE);
  m.insert(tap::ERROR, kl::ERROR_BUSY);
  m.insert(tap::BY_LOADER, true);
  const std::string text = report.lineOf(m);
  EXPECT_TRUE(text.ends_with("  error: " + kl::getError(kl::errorMsg(kl::ERROR_BUSY, "")) +
                             " (by the loader)  #17\n"))
      << text;
}

TEST_F(Trace, ReceiversAreNamedOrCounted) {
  kl::message m = message(28, kl::PATH_ALL, 1);
  EXPECT_NE(report.lineOf(m).find("web -> all "), std::string::npos);
  m.insert(tap::RECEIVERS, {30, 31, 32});
  EXPECT_NE(report.lineOf(m).find("web -> 3 services "), std::string::npos);
  m.insert(tap::RECEIVER_COUNT, 700);
  EXPECT_NE(report.lineOf(m).find("web -> 700 services "), std::string::npos);
}

TEST_F(Trace, WhatWasLostIsALine) {
  kl::message m;
  m.insert(tap::LOST, 12);
  EXPECT_EQ(report.lineOf(m), "12 messages came too fast and are left out\n");
  EXPECT_EQ(report.lost(), 12u);
  EXPECT_EQ(report.messages(), 0u);
}

TEST_F(Trace, ANameCannotSteerTheTerminal) {
  TraceReport hostile(line, services("\x1b[2J\r\nnetif"));
  const std::string text = hostile.lineOf(message(28, 32, 1));
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  EXPECT_EQ(text.find('\n'), text.size() - 1);
}

TEST_F(Trace, RequestsWithoutAReplyAreNotRememberedForEver) {
  const auto numbered = [](kl::message m, unsigned int number) {
    m.insert(tap::NUMBER, number);
    return m;
  };
  for (unsigned int number = 0; number < 3 * TraceReport::kMostRemembered; ++number)
    (void)report.lineOf(numbered(message(28, 32, 1'000'000), number));
  const std::string last =
      report.lineOf(numbered(reply(32, 28, 1'018'900), 3 * TraceReport::kMostRemembered - 1));
  EXPECT_NE(last.find("  18.9 ms  "), std::string::npos) << last;
  const std::string first = report.lineOf(numbered(reply(32, 28, 1'018'900), 0));
  EXPECT_NE(first.find("  20 ms  "), std::string::npos) << "the loader's own age: " << first;
}

TEST_F(Trace, DurationsAreAsPeopleWriteThem) {
  EXPECT_EQ(parsed({"trace", "--slow", "10ms"}).trace.slowMs, 10u);
  EXPECT_EQ(parsed({"trace", "--slow", "2s"}).trace.slowMs, 2000u);
  for (const char* wrong : {"", "2", "ms", "-1s", "0ms", "2d", "nan", "1e30s"}) {
    const Told told = failureOf([&] { (void)parsed({"trace", "--slow", wrong}); });
    EXPECT_EQ(told.status, 2) << wrong;
    EXPECT_TRUE(told.sentence.starts_with("--slow takes a time from 1ms to 1d, as 2s, not '"))
        << told.sentence;
  }
}

struct TraceProgram : testing::Test {
  void roundTrip(unsigned int id) {
    ASSERT_TRUE(a.send(request({501, 0}, kl::CMD_GET, id, {7})));
    const auto asked = b.receiveCommand(kl::CMD_GET);
    ASSERT_TRUE(asked);
    ASSERT_TRUE(b.send(replyTo(*asked)));
    ASSERT_TRUE(a.receiveReply(id));
  }

  LoaderProcess loader{""};
  RawPeer a = RawPeer::registered(500);
  RawPeer b = RawPeer::registered(501);
};

TEST_F(TraceProgram, ARoundTripIsTwoLines) {
  RunningProgram klctl({kKlctl, "trace", "500", "501"});
  EXPECT_TRUE(klctl.remarks("messages between 500 and 501\n"));
  roundTrip(5);
  EXPECT_NE(klctl.line().find("CMD_GET"), std::string::npos);
  EXPECT_NE(klctl.line().find("reply CMD_GET"), std::string::npos);
  EXPECT_EQ(klctl.end(SIGINT), 0);
}

// The messages do not end before the program does.
TEST_F(TraceProgram, AnInterruptEndsItInTheMidstOfAFlood) {
  RunningProgram klctl({"/bin/sh", "-c", "exec " + std::string(kKlctl) + " trace >/dev/null"});
  EXPECT_TRUE(klctl.remarks("messages of all services\n"));
  std::atomic<unsigned int> asked = 0;
  std::atomic<bool> isOver = false;
  std::thread flood([&] {
    for (unsigned int i = 1; !isOver; ++i, asked = i, asked.notify_one())
      if (!a.send(request({kl::SERVICE_LOADER}, kl::CMD_NOOP, i, {7})) || !a.receiveReply(i)) break;
  });
  asked.wait(0);
  EXPECT_EQ(klctl.end(SIGINT), 0);
  isOver = true;
  flood.join();
}

TEST_F(TraceProgram, AsJsonAMessageIsALineAndACountEndsIt) {
  RunningProgram klctl({kKlctl, "trace", "--json", "-n", "2"});
  EXPECT_TRUE(klctl.remarks("messages of all services\n"));
  roundTrip(5);
  EXPECT_EQ(Json::parse(klctl.line())["from_id"], 500);
  const Json second = Json::parse(klctl.line());
  EXPECT_EQ(second["from_id"], 501);
  EXPECT_EQ(second["reply"], true);
  EXPECT_TRUE(klctl.remarks("2 messages, 0 lost\n"));
}

TEST_F(TraceProgram, AWrongNameIsRefused) {
  const auto service = runProgram({kKlctl, "trace", "loadr"});
  EXPECT_EQ(service.exitStatus, 1);
  EXPECT_NE(service.err.find("did you mean 'loader'?"), std::string::npos) << service.err;
  const auto command = runProgram({kKlctl, "trace", "loader", "--command", "reloat"});
  EXPECT_EQ(command.exitStatus, 2);
  EXPECT_NE(command.err.find("there is no command 'reloat'; did you mean 'reload'?"), std::string::npos)
      << command.err;
}

TEST_F(TraceProgram, WhoMayNotControlTheLoaderIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  const auto refused =
      runProgram({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", kKlctl, "trace"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_NE(refused.err.find("control"), std::string::npos) << refused.err;
}

}  // namespace
}  // namespace klctl
