#include "services/loader/crashes/crash.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using loader::Crash;
using loader::isSameCrash;
using loader::ProgramFile;
using loader::readCrash;

const std::string kFolder = "/opt/" + std::string(60, 'd') + "/";

std::string reportOf(const std::string& registers, const std::string& calls, const std::string& maps) {
  return "/usr/sbin/leases\n--- signal=11 --------------------------------------------\n\n" + registers +
         "\n\nbacktrace:\n" + calls + "\n\ncode:\n90909090 \n\nmaps:\n" + maps + "extra 0x00000001\n\n\n";
}

const std::string kMaps =
    "55c1a2b41000-55c1a2b46000 r-xp 00001000 fe:00 1234                       /usr/sbin/leases\n"
    "7f11a0f00000-7f11a0fff000 r-xp 00020000 fe:00 99                         /usr/lib/libc.so.6\n";

TEST(CrashTest, PlacesAreThoseInTheFilesWhereverTheyWereMapped) {
  const Crash crash =
      readCrash(reportOf("rip=0x000055c1a2b41b2f rsp=0x01", "0x00007f11a0f00011 0x42 ", kMaps),
                {"/usr/sbin/leases", 1234, "ab"});
  EXPECT_EQ(crash.signal, 11u);
  ASSERT_EQ(crash.frames.size(), 3u);
  EXPECT_EQ(crash.frames[0].text(), "leases +0x1b2f");
  EXPECT_TRUE(crash.frames[0].isInProgram);
  EXPECT_EQ(crash.frames[1].text(), "libc.so.6 +0x20010");  // inside of the call
  EXPECT_EQ(crash.frames[2].text(), "no file");
}

TEST(CrashTest, ThePlaceIsTheFirstOneInTheProgram) {
  const Crash crash = readCrash(reportOf("rip=0x00007f11a0f00010 rsp=0x01", "0x000055c1a2b41b30 ", kMaps),
                                {"/usr/sbin/leases", 1234, ""});
  ASSERT_NE(crash.place(), nullptr);
  EXPECT_EQ(crash.place()->text(), "leases +0x1b2f");
}

// The line ends within the folder that both lie in.
TEST(CrashTest, WherePathsAreCutTheInodeTellsTheProgramFromItsLibraries) {
  const std::string beginning = "55c1a2b41000-55c1a2b46000 r-xp 00001000 fe:00 ";
  const std::string program = (beginning + "1234                       " + kFolder + "leases").substr(0, 100);
  const std::string library =
      ("7f11a0f00000-7f11a0fff000 r-xp 00000000 fe:00 77                         " + kFolder + "libx.so")
          .substr(0, 100);
  const Crash crash = readCrash(
      reportOf("rip=0x00007f11a0f00010 rsp=0x01", "0x000055c1a2b41b30 ", program + "\n" + library + "\n"),
      {kFolder + "leases", 1234, ""});
  ASSERT_EQ(crash.frames.size(), 2u);
  EXPECT_FALSE(crash.frames[0].isInProgram);
  EXPECT_TRUE(crash.frames[1].isInProgram);
}

TEST(CrashTest, TheSameCrashHasTheSameKeyAtOtherAddresses) {
  const ProgramFile program{"/usr/sbin/leases", 1234, "ab"};
  const Crash one = readCrash(reportOf("rip=0x000055c1a2b41b2f", "", kMaps), program);
  std::string moved = kMaps;
  moved.replace(0, 25, "660000000000-660000005000");
  const Crash same = readCrash(reportOf("rip=0x0000660000000b2f", "", moved), program);
  const Crash other = readCrash(reportOf("rip=0x000055c1a2b41b30", "", kMaps), program);
  EXPECT_EQ(one.key("ab"), same.key("ab"));
  EXPECT_NE(one.key("ab"), one.key("cd"));
  EXPECT_NE(one.key("ab"), other.key("ab"));
}

TEST(CrashTest, TheSameCrashMayLackItsLastCallers) {
  const std::string whole = "ab 11, libc +0x1, leases +0x2, leases +0x3";
  EXPECT_TRUE(isSameCrash(whole, whole));
  EXPECT_TRUE(isSameCrash(whole, "ab 11, libc +0x1, leases +0x2"));
  EXPECT_TRUE(isSameCrash("ab 11, libc +0x1, leases +0x2", whole));
  EXPECT_FALSE(isSameCrash(whole, "ab 11, libc +0x1"));  // what every call of this function has
  EXPECT_FALSE(isSameCrash(whole, "ab 11"));
  EXPECT_FALSE(isSameCrash(whole, "ab 11, libc +0x1, leases +0x"));
  EXPECT_FALSE(isSameCrash(whole, "ab 11, libc +0x1, leases +0x4"));
  EXPECT_FALSE(isSameCrash("ab 11, libc +0x1", "ab 6, libc +0x1"));
}

TEST(CrashTest, EveryBeginningOfAReportIsRead) {
  const std::string report = reportOf("rip=0x000055c1a2b41b2f rsp=0x01", "0x00007f11a0f00011 ", kMaps);
  for (std::size_t size = 0; size <= report.size(); ++size)
    EXPECT_LE(readCrash(report.substr(0, size), {"/usr/sbin/leases", 1234, ""}).frames.size(), 2u);
}

TEST(CrashTest, AReportOfManyCallsHasABoundedNumberOfPlaces) {
  std::string calls;
  for (int i = 0; i < 1000; ++i) calls += "0x000055c1a2b41b2f ";
  EXPECT_EQ(readCrash(reportOf("rip=0x01", calls, kMaps), {}).frames.size(), loader::kMostFrames);
}

}  // namespace
