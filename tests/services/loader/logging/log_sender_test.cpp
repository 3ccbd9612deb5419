#include "services/loader/logging/log_sender.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "services/loader/logging/log.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/doubles/log_service.h"
#include "tests/support/hex.h"

namespace {

// Of its own lines, of the output of services and of their errors.
const std::string kRegistrations =
    "000a 0000 0000 0001 0010 000a 0000 0000 0002 0014 000a 0000 0000 0003 0015";
constexpr unsigned int kPause = loader::LogSender::kShortestRetryTicks;
constexpr unsigned int kSecond = 100;

class LoaderLogSender : public testing::Test {
 protected:
  LoaderLogSender() : nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC)), log(nowhere.get()) {}

  void pass() {
    loop.addTimer(
        nullptr, [](void*) {}, 0);  // so that it does not wait
    loop.runSocks(kl::getJiffies());
  }

  // The texts of what the service has received, in brackets; the first registration as "+", and output in braces.
  std::string lines() {
    std::string all;
    const std::vector<unsigned char> bytes = service->receive();
    for (std::size_t at = 0; at < bytes.size();) {
      const std::size_t length = static_cast<std::size_t>(bytes.at(at)) << 8 | bytes.at(at + 1);
      const bool isRegistration = bytes.at(at + 3) == 0;
      if (at + length > bytes.size()) return all + "torn";
      const std::string text(bytes.begin() + static_cast<std::ptrdiff_t>(at + 4),
                             bytes.begin() + static_cast<std::ptrdiff_t>(at + length));
      const bool isOwn = (isRegistration ? bytes.at(at + 7) : bytes.at(at + 3)) == 1;
      if (isRegistration) all += isOwn ? "+" : "";
      else all += isOwn ? "[" + text + "]" : "{" + text + "}";
      at += length;
    }
    return all;
  }

  void connect() {
    service.emplace();
    sender.line("first");
    ASSERT_TRUE(service->accept());
    EXPECT_EQ(lines(), "+[first]");
  }

  // Lines until the sender has dropped some; how many there were.
  int overflow() {
    constexpr int kLines = 10000;
    for (int i = 0; i < kLines; ++i) sender.line("line " + std::to_string(i) + std::string(90, '.'));
    return kLines;
  }

  // Reads until nothing comes any more.
  std::string drain() {
    std::string all;
    for (std::string some = lines(); !some.empty(); some = lines()) {
      all += some;
      pass();
    }
    return all;
  }

  static int count(const std::string& text, const std::string& word) {
    int n = 0;
    for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
    return n;
  }

  static int dropsToldAtTheEndOf(const std::string& text) {
    const std::size_t at = text.rfind('[');
    EXPECT_NE(text.find(" lines dropped]", at), std::string::npos) << text.substr(at);
    return std::stoi(text.substr(at + 1));
  }

  kl::test::ScriptedClock clock{100000};
  common::Descriptor nowhere;
  loader::Log log;
  kl::ThinRunner loop;
  loader::LogSender sender{loop, log};
  std::optional<kl::test::LogService> service;
};

TEST_F(LoaderLogSender, RegistersTheLoaderAndSendsTheLine) {
  service.emplace();
  sender.line("abc");
  ASSERT_TRUE(service->accept());
  EXPECT_EQ(service->received(), kRegistrations + " 0007 0001 6162 63");
  sender.line("d");
  EXPECT_EQ(service->received(), "0005 0001 64");
}

TEST_F(LoaderLogSender, GetsEveryLineOfTheLog) {
  service.emplace();
  log.line("netif (32): started");
  ASSERT_TRUE(service->accept());
  EXPECT_EQ(lines(), "+[netif (32): started]");
}

TEST_F(LoaderLogSender, TheLogGoesOnWithoutIt) {
  { loader::LogSender other(loop, log); }
  log.line("nobody is asked");
  service.emplace();
  EXPECT_FALSE(service->accept());
}

TEST_F(LoaderLogSender, AVeryLongLineIsCut) {
  connect();
  sender.line(std::string(100000, 'x'));
  EXPECT_EQ(lines(), "[" + std::string(2048, 'x') + "]");
}

TEST_F(LoaderLogSender, TriesAtMostOnceInAPauseHoweverMuchThereIsToSay) {
  sender.line("a");
  service.emplace();
  clock.advance(kPause - 1);
  sender.line("b");
  EXPECT_FALSE(service->accept());
  clock.advance(1);
  sender.line("c");
  ASSERT_TRUE(service->accept());
  EXPECT_EQ(lines(), "+[a][b][c]");
}

TEST_F(LoaderLogSender, TriesByItselfAfterAPause) {
  sender.line("a");
  service.emplace();
  pass();
  EXPECT_FALSE(service->accept());
  clock.advance(kPause);
  pass();
  ASSERT_TRUE(service->accept());
  EXPECT_EQ(lines(), "+[a]");
}

TEST_F(LoaderLogSender, TriesMoreAndMoreSeldomByItself) {
  sender.line("a");
  clock.advance(kPause);
  pass();
  service.emplace();
  clock.advance(2 * kPause - 1);
  pass();
  EXPECT_FALSE(service->accept());
  clock.advance(1);
  pass();
  EXPECT_TRUE(service->accept());
}

TEST_F(LoaderLogSender, TriesAtOnceWhenTheServiceHasRegistered) {
  sender.line("a");
  service.emplace();
  sender.onServiceThere();
  ASSERT_TRUE(service->accept());
  EXPECT_EQ(lines(), "+[a]");
}

TEST_F(LoaderLogSender, WithNothingToSayItDoesNotConnect) {
  service.emplace();
  sender.onServiceThere();
  EXPECT_FALSE(service->accept());
}

TEST_F(LoaderLogSender, ALineSoonAfterAnEndWaitsForNoOtherOne) {
  connect();
  service->hangUp();
  pass();
  sender.line("soon");
  clock.advance(kPause);
  pass();
  ASSERT_TRUE(service->accept());
  EXPECT_EQ(lines(), "+[soon]");
}

TEST_F(LoaderLogSender, OutputGoesInOrderWithItsOwnLines) {
  connect();
  EXPECT_TRUE(sender.output(loader::Stream::kOutput, "out"));
  sender.line("own");
  EXPECT_TRUE(sender.output(loader::Stream::kErrors, "err"));
  EXPECT_EQ(lines(), "{out}[own]{err}");
}

TEST_F(LoaderLogSender, OutputLeavesHalfOfTheRoomToItsOwnLines) {
  const std::string text(1000, 'x');
  std::size_t taken = 0;
  while (sender.output(loader::Stream::kOutput, text)) ++taken;
  EXPECT_EQ(taken, loader::LogSender::kMostBytesKept / 2 / 1004);
  sender.line("own");
  service.emplace();
  sender.onServiceThere();
  ASSERT_TRUE(service->accept());
  EXPECT_TRUE(drain().ends_with("}[own]"));
}

TEST_F(LoaderLogSender, OutputOfAllServicesTogetherHasARate) {
  connect();
  unsigned int taken = 0;
  while (sender.output(loader::Stream::kOutput, "x")) ++taken;
  EXPECT_EQ(taken, loader::LogSender::kOutputBurst);
  clock.advance(kSecond);
  for (taken = 0; sender.output(loader::Stream::kOutput, "x");) ++taken;
  EXPECT_EQ(taken, loader::LogSender::kOutputPerSecond);
}

TEST_F(LoaderLogSender, OutputThatIsMutedIsNotMissed) {
  connect();
  service->send("0006 0002 0001");
  pass();
  EXPECT_TRUE(sender.output(loader::Stream::kOutput, "out"));
  EXPECT_TRUE(sender.output(loader::Stream::kErrors, "err"));
  sender.line("own");
  EXPECT_EQ(lines(), "{err}[own]");
}

TEST_F(LoaderLogSender, KeepsABoundedNumberOfLinesAndSaysHowManyItDropped) {
  const int all = overflow();
  service.emplace();
  clock.advance(kSecond);
  pass();
  ASSERT_TRUE(service->accept());
  const std::string text = drain();
  const int kept = count(text, "[line ");
  EXPECT_EQ(text.substr(0, 8), "+[line 0");
  EXPECT_GT(kept, 600);
  EXPECT_LE(static_cast<std::size_t>(kept) * 99, loader::LogSender::kMostBytesKept);
  EXPECT_EQ(kept + dropsToldAtTheEndOf(text), all);
  sender.line("after");
  EXPECT_EQ(lines(), "[after]");
}

TEST_F(LoaderLogSender, DoesNotWaitForAServiceThatDoesNotRead) {
  connect();
  const int all = overflow();
  const std::string text = drain();
  EXPECT_EQ(count(text, "[line ") + dropsToldAtTheEndOf(text), all);
  EXPECT_EQ(text.find("torn"), std::string::npos);
}

TEST_F(LoaderLogSender, RegistersAgainWithTheServiceThatComesAfter) {
  connect();
  service->hangUp();
  pass();
  clock.advance(kSecond);
  sender.line("again");
  ASSERT_TRUE(service->accept());
  EXPECT_EQ(lines(), "+[again]");
}

TEST_F(LoaderLogSender, ALineThatMeetsTheEndIsSentToTheNextService) {
  connect();
  service->hangUp();
  clock.advance(kSecond);
  sender.line("meets it");
  clock.advance(kSecond);
  pass();
  ASSERT_TRUE(service->accept());
  EXPECT_EQ(lines(), "+[meets it]");
}

TEST_F(LoaderLogSender, ANewConnectionBeginsWithAWholeRecord) {
  connect();
  overflow();  // the socket may have taken a part of the last record
  service->hangUp();
  pass();
  clock.advance(kSecond);
  pass();
  ASSERT_TRUE(service->accept());
  const std::string text = drain();
  EXPECT_EQ(text.substr(0, 7), "+[line ");
  EXPECT_EQ(text.find("torn"), std::string::npos);
}

TEST_F(LoaderLogSender, ObeysMuting) {
  connect();
  service->send("0006 0001 0001");
  pass();
  sender.line("not wanted");
  EXPECT_EQ(lines(), "");
  service->send("0006 0001 0000");
  pass();
  sender.line("wanted");
  EXPECT_EQ(lines(), "[wanted]");
}

TEST_F(LoaderLogSender, PutsAMuteRecordTogetherAndPassesOverOtherSources) {
  connect();
  service->send("0006 0004 0001 0006 00");
  pass();
  sender.line("wanted");
  EXPECT_EQ(lines(), "[wanted]");
  service->send("01 0001");
  pass();
  sender.line("not wanted");
  EXPECT_EQ(lines(), "");
}

TEST_F(LoaderLogSender, LeavesAServiceThatSendsSomethingElse) {
  connect();
  service->send("0007 0001 0001");
  pass();
  EXPECT_TRUE(service->isLeft());
}

TEST_F(LoaderLogSender, ANewConnectionIsNotMuted) {
  connect();
  service->send("0006 0001 0001");
  pass();
  service->hangUp();
  pass();
  clock.advance(kSecond);
  sender.line("again");
  ASSERT_TRUE(service->accept());
  EXPECT_EQ(lines(), "+[again]");
}

}  // namespace
