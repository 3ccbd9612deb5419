#include "log/diagnostics.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace kl::logging {
namespace {

TEST(LogDiagnostics, AreLinesOnStandardOutput) {
  ::testing::internal::CaptureStdout();
  printLine("EOF");
  errno = ENOENT;
  printError("could not connect to log: ");
  printNumber("partial write written=", 4294967295u);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "EOF\n"
            "could not connect to log: No such file or directory\n"
            "partial write written=4294967295\n");
}

}  // namespace
}  // namespace kl::logging
