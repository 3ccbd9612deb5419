#include "tools/klctl/values/process_usage.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace klctl {
namespace {

// As a kernel writes it; a tick is 10 ms and a page 4 KiB on all that these tests run on.
std::string statOf(const std::string& name) {
  return "4711 (" + name +
         ") S 1 4711 4711 0 -1 4194560 225 0 0 0 12 30 0 0 20 0 1 0 987654 12345678 500 18446744073709551615 "
         "1 1";
}

TEST(ProcessUsageText, TimesAndMemoryAreFoundBehindAnyName) {
  for (const char* name : {"netif", "a) b", ") S 9 9 9 9 9 9 9 9 9 9 9 9 9 9", "", "\x1b[2J"}) {
    const auto usage = usageIn(statOf(name));
    ASSERT_TRUE(usage) << name;
    EXPECT_EQ(usage->cpuMs, 42000ull / static_cast<unsigned long>(::sysconf(_SC_CLK_TCK)));
    EXPECT_EQ(usage->memoryKiB, 500ull * static_cast<unsigned long>(::sysconf(_SC_PAGESIZE)) / 1024);
    EXPECT_EQ(usage->startedAt, 987654u);
  }
}

TEST(ProcessUsageText, WhatIsCutOffSaysNothing) {
  const std::string whole = statOf("netif");
  const std::size_t memory = whole.find(" 500 ");
  for (std::size_t length = 0; length <= memory; ++length)
    EXPECT_FALSE(usageIn(whole.substr(0, length))) << length;
}

TEST(ProcessUsageText, AProcessIsTheSameAndGrows) {
  const auto before = usageOf(::getpid());
  ASSERT_TRUE(before);
  const std::string grown(8 << 20, 'x');
  const auto after = usageOf(::getpid());
  ASSERT_TRUE(after);
  EXPECT_EQ(after->startedAt, before->startedAt);
  EXPECT_GE(after->cpuMs, before->cpuMs);
  EXPECT_GE(after->memoryKiB, before->memoryKiB + 4096) << grown.size();
}

TEST(ProcessUsageText, NobodyHasNone) {
  EXPECT_FALSE(usageOf(0));
  EXPECT_FALSE(usageOf(-1));
}

}  // namespace
}  // namespace klctl
