#include "tools/klctl/values/process_state.h"
#include "tests/support/process/child_process.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

namespace klctl {

TEST(ProcessState, IsALetterBehindTheName) {
  EXPECT_EQ(whatItDoes("812 (leases) R 1 812", ""), "runs");
  EXPECT_EQ(whatItDoes("812 (leases) S 1 812", "do_poll"), "is asleep in do_poll");
  EXPECT_EQ(whatItDoes("812 (leases) S 1 812", "0"), "is asleep");
  EXPECT_EQ(whatItDoes("812 (leases) D 1 812", "io_schedule"), "waits for a device in io_schedule");
  EXPECT_EQ(whatItDoes("812 (leases) T 1 812", "do_signal_stop"), "is stopped");
  EXPECT_EQ(whatItDoes("812 (leases) t 1 812", ""), "is stopped by a debugger");
  EXPECT_EQ(whatItDoes("812 (leases) Z 1 812", ""), "has ended");
}

TEST(ProcessState, ANameMayLookLikeAState) {
  EXPECT_EQ(whatItDoes("812 (a) Z (b) T 1 812", ""), "is stopped");
}

TEST(ProcessState, WhatTheKernelDoesNotTellIsEmpty) {
  for (const char* stat : {"", "812", "812 (leases", "812 (leases) ", "812 (leases) ? 1"})
    EXPECT_EQ(whatItDoes(stat, "do_poll"), "") << stat;
}

TEST(ProcessState, AStoppedProcessIsToldFromARunningOne) {
  EXPECT_EQ(whatItDoes(::getpid()), "runs");
  kl::test::ChildProcess child([] { (void)::raise(SIGSTOP); });
  const pid_t pid = child.pid();
  ASSERT_TRUE(child.stops());
  EXPECT_EQ(whatItDoes(pid), "is stopped");
  ASSERT_EQ(child.end(SIGKILL), 128 + SIGKILL);
  EXPECT_EQ(whatItDoes(pid), "");
}

}  // namespace klctl
