#include "services/loader/crashes/death.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

namespace {

using loader::describeEnd;

TEST(Death, AStatusIsToldAsANumberAndASignalByItsName) {
  EXPECT_EQ(describeEnd(W_EXITCODE(3, 0)), "ended with status 3");
  EXPECT_EQ(describeEnd(SIGKILL), "killed by SIGKILL");
}

TEST(Death, TheSignalOfTheReportCounts) {
  EXPECT_EQ(describeEnd(W_EXITCODE(1, 0), {"report", SIGABRT, ""}), "killed by SIGABRT");
  EXPECT_EQ(describeEnd(SIGALRM, {"report", SIGSEGV, ""}), "killed by SIGSEGV");
}

TEST(Death, WhoEndsWithSuccessHasNotCrashedWhateverItSaid) {
  EXPECT_EQ(describeEnd(W_EXITCODE(0, 0), {"", SIGSEGV, ""}), "ended with status 0");
  EXPECT_FALSE(loader::isCrash(W_EXITCODE(0, 0)));
  EXPECT_TRUE(loader::isCrash(SIGTERM));
}

TEST(Death, ASegmentFaultWithoutAReportIsToldAsWhatItProbablyIs) {
  EXPECT_EQ(describeEnd(SIGSEGV), "killed by SIGSEGV without a report, as after a stack overflow");
  EXPECT_EQ(describeEnd(SIGSEGV, {"report", SIGSEGV, ""}), "killed by SIGSEGV");
}

}  // namespace
