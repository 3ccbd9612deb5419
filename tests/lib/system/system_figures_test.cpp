#include <gtest/gtest.h>
#include <sys/mount.h>

#include <fstream>
#include <iostream>

#include "kl/utilities.h"
#include "tests/lib/system/private_mounts.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/process/child.h"
#include "tests/support/process/descriptors.h"

namespace {

using Figure = unsigned int (*)(unsigned int*);

// The answer of `figure` where /proc/meminfo holds `text`: the result and the total, which was 7 before.
std::string figureOf(Figure figure, const std::string& text) {
  const kl::test::ChildResult child = kl::test::runInChild([figure, &text] {
    kl::test::takePrivateMounts();
    kl::test::coverFolder("/tmp");
    kl::test::writeFile("/tmp/meminfo", text);
    const int bound = ::mount("/tmp/meminfo", "/proc/meminfo", nullptr, MS_BIND, nullptr);
    kl::test::require(bound == 0, "mount on /proc/meminfo");
    const std::vector<int> before = kl::test::openDescriptors();
    unsigned int total = 7;
    const unsigned int result = figure(&total);
    kl::test::require(kl::test::openDescriptors() == before, "the file is closed");
    kl::test::require(figure(nullptr) == result, "without a total");
    std::cout << result << " of " << total << std::flush;
  });
  EXPECT_EQ(child.exitStatus, 0) << child.err;
  return child.out;
}

// The same where there is no /proc at all.
std::string figureWithoutProc(Figure figure) {
  const kl::test::ChildResult child = kl::test::runInChild([figure] {
    kl::test::takePrivateMounts();
    kl::test::coverFolder("/proc");
    unsigned int total = 7;
    std::cout << figure(&total) << " of " << total << std::flush;
  });
  EXPECT_EQ(child.exitStatus, 0) << child.err;
  return child.out;
}

const std::string kUnknown = "4294967295 of 7";
const std::string kFourLines =
    "MemTotal:         127804 kB\nMemFree:           20000 kB\nBuffers:             300 kB\nCached:  4000 "
    "kB\n";
const std::string kToday =
    "MemTotal:        8000000 kB\nMemFree:         1000000 kB\nMemAvailable:    6000000 kB\n"
    "Buffers:          100000 kB\nCached:          4000000 kB\nSwapCached:            0 kB\n";

TEST(SystemFigures, UptimeCountsTheTicksInSeconds) {
  kl::test::ScriptedClock clock(12399);
  EXPECT_EQ(kl::getUptime(), 123U);
  clock.set(0xFFFFFFFF);
  EXPECT_EQ(kl::getUptime(), 42949672U);
}

TEST(SystemFigures, FreeMemoryIsTheSumOfFreeBuffersAndCache) {
  EXPECT_EQ(figureOf(kl::getFreeMemory, kFourLines), "24300 of 127804");
  EXPECT_EQ(figureOf(kl::getFreeMemory, kFourLines + "SwapCached: 5 kB\n"), "24300 of 127804");
}

TEST(SystemFigures, FreeMemoryNeedsItsFourLinesFirst) {
  EXPECT_EQ(figureOf(kl::getFreeMemory, kToday), kUnknown);
  EXPECT_EQ(figureOf(kl::getFreeMemory, "Something: 1 kB\n" + kFourLines), kUnknown);
  for (const char* name : {"MemTotal", "MemFree", "Buffers", "Cached"}) {
    std::string lines = kFourLines;
    lines.replace(lines.find(name), 3, "???");
    EXPECT_EQ(figureOf(kl::getFreeMemory, lines), kUnknown) << name;
  }
}

TEST(SystemFigures, FreeMemoryOfAShortFileIsUnknown) {
  for (std::size_t line = 0; line < kFourLines.size() - 1; line = kFourLines.find('\n', line) + 1)
    EXPECT_EQ(figureOf(kl::getFreeMemory, kFourLines.substr(0, line)), kUnknown) << line;
}

TEST(SystemFigures, FreeMemoryOfALineWithoutANumberIsUnknown) {
  EXPECT_EQ(figureOf(kl::getFreeMemory, "MemTotal: much\nMemFree: 1 kB\nBuffers: 1 kB\nCached: 1 kB\n"),
            kUnknown);
}

TEST(SystemFigures, AvailableMemoryIsTheKernelsEstimate) {
  EXPECT_EQ(figureOf(kl::getAvailableMemory, kToday), "6000000 of 8000000");
}

TEST(SystemFigures, AvailableMemoryOfAnOldKernelIsTheSum) {
  EXPECT_EQ(figureOf(kl::getAvailableMemory, kFourLines), "24300 of 127804");
  EXPECT_EQ(figureOf(kl::getAvailableMemory, "Something: 1 kB\n" + kFourLines), "24300 of 127804");
}

TEST(SystemFigures, AvailableMemoryNeedsTheTotalAndOneOfBoth) {
  EXPECT_EQ(figureOf(kl::getAvailableMemory, "MemAvailable: 5 kB\n"), kUnknown);
  for (const char* name : {"MemTotal", "MemFree", "Buffers", "Cached"}) {
    std::string lines = kFourLines;
    lines.replace(lines.find(name), 3, "???");
    EXPECT_EQ(figureOf(kl::getAvailableMemory, lines), kUnknown) << name;
  }
  EXPECT_EQ(figureOf(kl::getAvailableMemory, ""), kUnknown);
}

TEST(SystemFigures, AvailableMemoryBeyond32BitsIsTheLargestNumber) {
  EXPECT_EQ(figureOf(kl::getAvailableMemory, "MemTotal: 9999999999 kB\nMemAvailable: 5000000000 kB\n"),
            "4294967294 of 4294967294");
  EXPECT_EQ(
      figureOf(kl::getAvailableMemory,
               "MemTotal: 9999999999 kB\nMemFree: 2147483648 kB\nBuffers: 1 kB\nCached: 2147483647 kB\n"),
      "4294967294 of 4294967294");
}

TEST(SystemFigures, TheLargestNumberOf32BitsIsATotalAndNoResult) {
  EXPECT_EQ(figureOf(kl::getFreeMemory,
                     "MemTotal: 4294967295 kB\nMemFree: 4294967293 kB\nBuffers: 1 kB\nCached: 1 kB\n"),
            "4294967294 of 4294967295");
  EXPECT_EQ(figureOf(kl::getAvailableMemory, "MemTotal: 4294967295 kB\nMemAvailable: 4294967295 kB\n"),
            "4294967294 of 4294967295");
}

TEST(SystemFigures, WithoutProcBothAreUnknown) {
  EXPECT_EQ(figureWithoutProc(kl::getFreeMemory), kUnknown);
  EXPECT_EQ(figureWithoutProc(kl::getAvailableMemory), kUnknown);
}

TEST(SystemFigures, ThisKernelSaysWhatIsAvailable) {
  unsigned int total = 0;
  const unsigned int available = kl::getAvailableMemory(&total);
  EXPECT_GT(available, 0U);
  EXPECT_LT(available, total);
}

}  // namespace
