// The lines by which the library reports what went wrong.

#include "base/report.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <iostream>
#include <limits>

#include "tests/support/process/child.h"

namespace kl {
namespace {

std::string outputOf(const std::function<void()>& body) {
  testing::internal::CaptureStdout();
  body();
  return testing::internal::GetCapturedStdout();
}

TEST(Report, ALineOnOutputMayHaveADetailBehindIt) {
  EXPECT_EQ(outputOf([] { printLine("EOF"); }), "EOF\n");
  EXPECT_EQ(outputOf([] { printLine("FULLREGET: ", "ok"); }), "FULLREGET: ok\n");
}

TEST(Report, ALineOnOutputMayEndWithANumberAndItsUnit) {
  EXPECT_EQ(outputOf([] { printLine("len ", 1); }), "len 1\n");
  EXPECT_EQ(outputOf([] { printLine("partial write written=", 4294967295u); }),
            "partial write written=4294967295\n");
  EXPECT_EQ(outputOf([] { printLine("fd=", -1, " again"); }), "fd=-1 again\n");
}

TEST(Report, ANumberIsTextInDecimal) {
  EXPECT_EQ(decimal(0), "0");
  EXPECT_EQ(decimal(4294967295u), "4294967295");
  EXPECT_EQ(decimal(std::numeric_limits<long long>::min()), "-9223372036854775808");
}

TEST(Report, ErrnoIsToldByItsText) {
  EXPECT_EQ(outputOf([] {
              errno = ENOENT;
              printErrno("could not connect to log: ");
            }),
            "could not connect to log: No such file or directory\n");
}

TEST(Report, HowAProcessFormatsItsNumbersDoesNotMatter) {
  EXPECT_EQ(outputOf([] {
              std::cout.setf(std::ios::hex, std::ios::basefield);
              std::cout.width(10);
              printLine("len ", 255);
              std::cout.setf(std::ios::dec, std::ios::basefield);
              std::cout.width(0);
            }),
            "len 255\n");
}

TEST(Report, ALineGoesToTheErrorStreamAndTheProcessGoesOn) {
  const test::ChildResult result = test::runInChild([] { printErrorLine("one line"); });
  EXPECT_EQ(result.err, "one line\n");
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.exitStatus, 0);
}

TEST(Report, TheLastLineEndsTheProcessWithStatus1) {
  const test::ChildResult result = test::runInChild([] { endProcess("the end"); });
  EXPECT_EQ(result.err, "the end\n");
  EXPECT_EQ(result.exitStatus, 1);
}

}  // namespace
}  // namespace kl
