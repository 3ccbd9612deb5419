#include "services/loader/logging/output_lines.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "services/common/descriptor.h"
#include "services/loader/logging/log_sender.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/doubles/log_service.h"

namespace {

using loader::OutputLines;

constexpr unsigned int kGap = OutputLines::kShortestGapTicks;
constexpr unsigned int kOutputSource = 2;

class OutputLinesTest : public testing::Test {
 protected:
  OutputLinesTest() { lines_.setSpeaker("x"); }

  void pass() {
    loop_.addTimer(
        nullptr, [](void*) {}, 0);  // so that it does not wait
    loop_.runSocks(kl::getJiffies());
  }

  void passAfter(unsigned int ticks) {
    clock_.advance(ticks);
    pass();
  }

  // The lines that come to the log service under the topic of output.
  std::string logged() {
    if (!isConnected_) isConnected_ = service_.accept();
    std::string all;
    for (auto bytes = service_.receive(); !bytes.empty(); bytes = service_.receive()) {
      all += outputIn(bytes);
      pass();
    }
    return all;
  }

  static std::string outputIn(const std::vector<unsigned char>& bytes) {
    std::string all;
    for (std::size_t at = 0; at < bytes.size();) {
      const std::size_t length = static_cast<std::size_t>(bytes.at(at)) << 8 | bytes.at(at + 1);
      const bool isOutput = bytes.at(at + 2) == 0 && bytes.at(at + 3) == kOutputSource;
      const auto text = bytes.begin() + static_cast<std::ptrdiff_t>(at);
      if (isOutput) all += std::string(text + 4, text + static_cast<std::ptrdiff_t>(length)) + "\n";
      at += length;
    }
    return all;
  }

  static std::size_t count(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  }

  kl::test::ScriptedClock clock_{100000};
  common::Descriptor nowhere_{::open("/dev/null", O_WRONLY | O_CLOEXEC)};
  loader::Log log_{nowhere_.get()};
  kl::ThinRunner loop_;
  kl::test::LogService service_;
  loader::LogSender sender_{loop_, log_};
  OutputLines lines_{loop_, log_, loader::Stream::kOutput};
  bool isConnected_ = false;
};

TEST_F(OutputLinesTest, ALineGoesWhenItsEndHasCome) {
  lines_.take("on");
  EXPECT_EQ(logged(), "");
  lines_.take("e\ntwo\nthr");
  EXPECT_EQ(logged(), "x: one\nx: two\n");
}

TEST_F(OutputLinesTest, AnUnfinishedOneGoesWithItsProcess) {
  lines_.take("thr");
  lines_.end();
  lines_.setSpeaker("y");
  lines_.take("ee\n");
  EXPECT_EQ(logged(), "x: thr\ny: ee\n");
}

TEST_F(OutputLinesTest, ALongOneIsCutWhereACharacterEnds) {
  const std::string most(OutputLines::kMostLineBytes, 'a');
  lines_.take(most + "\n" + most.substr(1) + "\xc3");
  lines_.take("\xa4\n");
  EXPECT_EQ(logged(), "x: " + most + "\nx: " + most.substr(1) + "\nx: \xc3\xa4\n");
}

TEST_F(OutputLinesTest, BytesThatAreNoCharactersAreCutAnywhere) {
  lines_.take(std::string(2 * OutputLines::kMostLineBytes, '\x80'));
  EXPECT_EQ(logged().size(), 2 * (OutputLines::kMostLineBytes + 4));
}

TEST_F(OutputLinesTest, EmptyOnesAndTheReturnsOfCarriagesDoNotGo) {
  lines_.take("\n\r\none\r\n\n");
  EXPECT_EQ(logged(), "x: one\n");
}

TEST_F(OutputLinesTest, ControlCharactersAreShownByTheirPictures) {
  lines_.take(std::string("a\tb\x1b[1m\x7f", 8) + '\0' + "\n");
  EXPECT_EQ(logged(), "x: a b\xe2\x90\x9b[1m\xe2\x90\xa1\xe2\x90\x80\n");
}

TEST_F(OutputLinesTest, WithoutASpeakerNothingGoes) {
  lines_.setSpeaker("");
  lines_.take("one\n");
  lines_.end();
  EXPECT_FALSE(service_.accept());
}

TEST_F(OutputLinesTest, WhatComesTooFastIsCountedAndTold) {
  for (unsigned int i = 0; i < OutputLines::kBurst + 70; ++i) lines_.take("line\n");
  EXPECT_EQ(count(logged()), OutputLines::kBurst);
  passAfter(kGap);
  EXPECT_EQ(logged(), "x: 70 lines not logged\n");
  lines_.take("again\n");
  EXPECT_EQ(logged(), "x: again\n");
}

TEST_F(OutputLinesTest, InAGapNoLinePasses) {
  for (unsigned int i = 0; i < OutputLines::kBurst + 1; ++i) lines_.take("line\n");
  clock_.advance(kGap - 1);
  lines_.take("late\n");
  pass();
  EXPECT_EQ(count(logged()), OutputLines::kBurst);
  passAfter(1);
  EXPECT_EQ(logged(), "x: 2 lines not logged\n");
}

TEST_F(OutputLinesTest, AGapIsToldWhenTheProcessEnds) {
  for (unsigned int i = 0; i < OutputLines::kBurst + 3; ++i) lines_.take("line\n");
  EXPECT_EQ(count(logged()), OutputLines::kBurst);
  lines_.end();
  EXPECT_EQ(logged(), "x: 3 lines not logged\n");
}

TEST_F(OutputLinesTest, WithoutALogServiceAPartIsKeptAndTheRestIsCounted) {
  lines_.take("before\n");
  EXPECT_EQ(logged(), "x: before\n");
  service_.hangUp();
  pass();
  for (int i = 0; i < 100; ++i) lines_.take(std::string(1000, 'a') + "\n");
  passAfter(kGap);
  isConnected_ = false;
  const std::string kept = logged();
  EXPECT_EQ(count(kept), loader::LogSender::kMostBytesKept / 2 / 1007 + 1);
  EXPECT_TRUE(kept.ends_with("x: 68 lines not logged\n"));
}

}  // namespace
