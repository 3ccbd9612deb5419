// klctl capture: the blocks, and the program with a real loader.  What Wireshark makes of a file is tried by
// capture_test.py.

#include "tools/klctl/verbs/capture.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "kl/records.h"
#include "kl/utilities.h"
#include "services/common/tap.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"
#include "tests/support/process/running_program.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tests/tools/klctl/scripted_loader.h"

namespace klctl {
namespace {

namespace fs = std::filesystem;
namespace tap = common::tap;
using kl::test::LoaderProcess;
using kl::test::RawPeer;
using kl::test::RunningProgram;
using kl::test::runProgram;

constexpr char kKlctl[] = KL_BIN_DIR "/klctl";

struct Capture : testing::Test {
  static kl::message message(unsigned int from, unsigned long long at) {
    kl::message m;
    m.insert(tap::AT, at);
    m.insert(tap::SENDER, from);
    m.insert(tap::RECEIVERS, {28});
    m.insert(tap::LENGTH, 5);
    m.insert(tap::CONTENTS, std::vector<unsigned char>{0x4d, 0x32, 7});
    return m;
  }
  static kl::message lost(unsigned long long count) {
    kl::message m;
    m.insert(tap::AT, 9);
    m.insert(tap::LOST, count);
    return m;
  }
  static OpenRequests services(const std::string& name = "netif") {
    OpenRequests services;
    services.services[32].name = name;
    return services;
  }
  static std::string packet(unsigned int interface, unsigned long long at, const std::string& comment) {
    const std::vector<unsigned char> frame = kl::test::bytes("05000000 4d3207");
    return pcapng::packet(
        {.interface = interface, .at = at, .bytes = frame, .length = 9, .comment = comment});
  }

  CommandLine line = parsed({"capture", "-o", "x"});
  CaptureReport report{line, services()};
};

TEST_F(Capture, AMessageIsAFrameFromTheInterfaceOfItsSender) {
  (void)report.begin("");
  EXPECT_EQ(report.blocksOf(message(32, 7)), pcapng::interface("netif (32)", 65539) + packet(1, 7, ""));
  EXPECT_EQ(report.blocksOf(message(32, 8)), packet(1, 8, ""));
  EXPECT_EQ(report.blocksOf(message(99, 9)), pcapng::interface("unnamed (99)", 65539) + packet(2, 9, ""));
}

TEST_F(Capture, WhatTheLoaderMadeIsMarked) {
  (void)report.begin("");
  kl::message m = message(32, 7);
  m.insert(tap::BY_LOADER, true);
  EXPECT_TRUE(report.blocksOf(m).ends_with(packet(1, 7, "by the loader")));
}

TEST_F(Capture, WhatIsLostIsToldWithTheNextPacketAndInTheEnd) {
  const std::string begin = report.begin("all");
  EXPECT_TRUE(begin.starts_with("\x0a\x0d\x0d\x0a"));
  EXPECT_TRUE(begin.ends_with(pcapng::interface("tap (0)", 65539)));
  (void)report.blocksOf(message(32, 7));
  EXPECT_EQ(report.blocksOf(lost(12)), "");
  EXPECT_EQ(report.blocksOf(message(32, 10)), packet(1, 10, "12 messages came too fast and are left out"));
  EXPECT_EQ(report.blocksOf(message(32, 11)), packet(1, 11, ""));
  EXPECT_EQ(report.blocksOf(lost(1)), "");
  EXPECT_EQ(report.end(),
            pcapng::statistics({.interface = 0, .begin = 7, .end = 11, .received = 0, .lost = 13}) +
                pcapng::statistics({.interface = 1, .begin = 7, .end = 11, .received = 3, .lost = 0}));
}

TEST_F(Capture, WithoutContentsAPacketSaysWhatTraceDoes) {
  const CommandLine headers = parsed({"capture", "-o", "x", "--headers"});
  CaptureReport bare(headers, services());
  (void)bare.begin("");
  kl::message m = message(32, 7);
  m.remove(tap::CONTENTS);
  const std::string blocks = bare.blocksOf(m);
  EXPECT_TRUE(blocks.starts_with(pcapng::interface("netif (32)", 4)));
  EXPECT_NE(blocks.find("netif -> 28"), std::string::npos) << blocks;
  EXPECT_EQ(blocks.find("bytes\n"), std::string::npos);
}

TEST_F(Capture, ANameCannotSteerTheTerminal) {
  CaptureReport hostile(line, services("\x1b[2J"));
  EXPECT_NE(hostile.blocksOf(message(32, 7)).find("\\x1b[2J (32)"), std::string::npos);
}

TEST_F(Capture, HowMuchOfAMessageIsKept) {
  EXPECT_EQ(parsed({"capture", "-o", "x"}).captureBytes, 65535u);
  EXPECT_EQ(parsed({"capture", "-o", "x", "-s", "100"}).captureBytes, 100u);
  EXPECT_EQ(parsed({"capture", "-o", "x", "--headers"}).captureBytes, 0u);
  for (const auto& wrong : {std::vector<const char*>{"capture"},
                            {"capture", "-o", "x", "-s", "0"},
                            {"capture", "-o", "x", "-s", "65536"},
                            {"capture", "-o", "x", "-s", "9", "--headers"},
                            {"capture", "-o", "x", "--dump"}})
    EXPECT_EQ(failureOf([&] { (void)parsed(wrong); }).status, 2);
}

TEST_F(Capture, ATerminalIsNoPlaceForIt) {
  RecordedChannels terminal({}, true);
  EXPECT_EQ(failureOf([&] { (void)terminal.perform(parsed({"capture", "-o", "-"})); }).status, 2);
}

struct CaptureProgram : testing::Test {
  CaptureProgram() {
    char name[] = "/tmp/capture_test.XXXXXX";
    folder = ::mkdtemp(name);
    file = folder / "x.pcapng";
  }
  ~CaptureProgram() override { fs::remove_all(folder); }

  void ask() {
    ASSERT_TRUE(a.send(kl::test::request({kl::SERVICE_LOADER}, kl::CMD_NOOP, 5, {7})));
    ASSERT_TRUE(a.receiveReply(5));
  }
  // The types of the blocks of the file, which are whole.
  std::vector<unsigned int> blocks() const {
    std::ifstream in(file, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    std::vector<unsigned int> types;
    std::size_t at = 0;
    while (at + 12 <= text.size()) {
      types.push_back(kl::readLe32(reinterpret_cast<const unsigned char*>(text.data()) + at));
      at += pcapng::blockBytes(text.data() + at);
    }
    EXPECT_EQ(at, text.size());
    return types;
  }

  static constexpr unsigned int kSection = 0x0a0d0d0a;
  static constexpr unsigned int kInterface = 1;
  static constexpr unsigned int kStatistics = 5;
  static constexpr unsigned int kPacket = 6;
  const std::vector<unsigned int> kWhole{kSection, kInterface,  kInterface,  kPacket,    kInterface,
                                         kPacket,  kStatistics, kStatistics, kStatistics};

  LoaderProcess loader{""};
  RawPeer a = RawPeer::registered(500);
  fs::path folder;
  fs::path file;
};

TEST_F(CaptureProgram, ACountEndsTheFile) {
  RunningProgram klctl({kKlctl, "capture", "-o", file.string(), "500", "-n", "2"});
  EXPECT_TRUE(klctl.remarks("messages of 500\n"));
  ask();
  EXPECT_TRUE(klctl.remarks("2 messages, 0 lost\n"));
  EXPECT_EQ(blocks(), kWhole);
}

TEST_F(CaptureProgram, SignalsEndTheFile) {
  for (const int signal : {SIGINT, SIGTERM}) {
    fs::remove(file);
    RunningProgram klctl({kKlctl, "capture", "-o", file.string(), "500"});
    EXPECT_TRUE(klctl.remarks("messages of 500\n"));
    EXPECT_EQ(klctl.end(signal), 0);
    EXPECT_EQ(blocks(), (std::vector<unsigned int>{kSection, kInterface, kStatistics}));
  }
}

// The messages do not end before the program does.
TEST_F(CaptureProgram, AnInterruptEndsItInTheMidstOfAFlood) {
  RunningProgram klctl({kKlctl, "capture", "-o", file.string()});
  EXPECT_TRUE(klctl.remarks("messages of all services\n"));
  std::atomic<unsigned int> asked = 0;
  std::atomic<bool> isOver = false;
  std::thread flood([&] {
    for (unsigned int i = 1; !isOver; ++i, asked = i, asked.notify_one())
      if (!a.send(kl::test::request({kl::SERVICE_LOADER}, kl::CMD_NOOP, i, {7})) || !a.receiveReply(i)) break;
  });
  asked.wait(0);
  EXPECT_EQ(klctl.end(SIGINT), 0);
  isOver = true;
  flood.join();
  EXPECT_EQ(blocks().back(), kStatistics);
}

// A loader that answers no request for a tap.
TEST(CaptureAlone, InterruptedBeforeItsTapItLeavesNoFile) {
  const fs::path file = kl::underRoot("/early.pcapng");
  kl::test::ListeningLoader listening;
  kl::test::Pipe hasAsked;
  kl::test::ChildProcess loader([&] {
    kl::test::LoaderDouble forTables(listening.accept());
    confirm(forTables);
    for (int table = 0; table < 2; ++table) {
      kl::message reply;
      kl::setType(reply, kl::TYPE_REPLY);
      kl::setRequestID(reply, forTables.receive().get(kl::SYS_REQID, 0));
      forTables.send(reply);
    }
    kl::test::LoaderDouble forTap(listening.accept());
    confirm(forTap);
    if (forTap.receive().get(kl::SYS_CMD, 0) == tap::CMD_TAP) hasAsked.say('!');
    awaitEnd(forTap);
  });
  RunningProgram klctl({kKlctl, "capture", "-o", file.string()});
  ASSERT_TRUE(hasAsked.hear<char>());
  (void)klctl.end(SIGINT);
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(loader.waitForEnd(), 0);
}

TEST_F(CaptureProgram, WhatPassesIsInAPipeAtOnce) {
  RunningProgram klctl({kKlctl, "capture", "-o", "-", "500"});
  EXPECT_TRUE(klctl.remarks("messages of 500\n"));
  EXPECT_TRUE(klctl.says("tap (0)"));
  ask();
  EXPECT_TRUE(klctl.says("by the loader"));
  EXPECT_EQ(klctl.end(SIGINT), 0);
}

TEST_F(CaptureProgram, TheEndOfTheLoaderEndsTheFile) {
  RunningProgram klctl({kKlctl, "capture", "-o", file.string()});
  EXPECT_TRUE(klctl.remarks("messages of all services\n"));
  loader.signal(SIGTERM);
  EXPECT_TRUE(klctl.remarks("the loader went away\n"));
  EXPECT_EQ(loader.waitForEnd(), 0);
  EXPECT_EQ(klctl.end(0), 4);
  EXPECT_EQ(blocks().back(), kStatistics);
}

TEST_F(CaptureProgram, OfARefusedCaptureThereIsNoFile) {
  EXPECT_EQ(runProgram({kKlctl, "capture", "-o", file.string(), "loadr"}).exitStatus, 1);
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(CaptureProgram, AFullDeviceIsSaid) {
  const auto full = runProgram({kKlctl, "capture", "-o", "/dev/full"});
  EXPECT_EQ(full.exitStatus, 1);
  EXPECT_NE(full.err.find("/dev/full: No space left on device"), std::string::npos) << full.err;
}

}  // namespace
}  // namespace klctl
