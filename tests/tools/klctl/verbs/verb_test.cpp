#include "tools/klctl/verbs/verb.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"

namespace klctl {

TEST(Verbs, EachHasAFunctionOfItsOwn) {
  std::set<Perform> functions;
  for (unsigned int verb = 0; verb < kVerbs; ++verb) functions.insert(performerOf(static_cast<Verb>(verb)));
  EXPECT_EQ(functions.size(), kVerbs);
  EXPECT_THROW((void)performerOf(static_cast<Verb>(kVerbs)), std::logic_error);
}

TEST(Verbs, OnlyATerminalGetsARemarkInsteadOfAnEmptyTable) {
  Channels channels;
  std::string printed;
  std::string remarked;
  channels.print = [&](const std::string& text) { printed += text; };
  channels.remark = [&](const std::string& sentence) { remarked += sentence; };
  printTable(channels, "", "netif: no objects");
  EXPECT_EQ(remarked, "");
  channels.isTerminal = true;
  printTable(channels, "id\n1\n", "netif: no objects");
  EXPECT_EQ(remarked, "");
  EXPECT_EQ(printed, "id\n1\n");
  printTable(channels, "", "netif: no objects");
  EXPECT_EQ(remarked, "netif: no objects");
}

TEST(Verbs, AFaultIsReportedAfterWhatCouldBeRead) {
  Channels channels;
  std::string printed;
  channels.print = [&](const std::string& text) { printed += text; };
  printWithFault(channels, "all", "");
  EXPECT_EQ(printed, "all");
  const Told told = failureOf([&] { printWithFault(channels, " but one", "the last is damaged"); });
  EXPECT_EQ(printed, "all but one");
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "the last is damaged");
}

}  // namespace klctl
