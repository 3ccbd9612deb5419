#include "services/describe/check.h"

#include <gtest/gtest.h>

namespace describe {

TEST(DescriptionNames, AreSmallWordsWithSingleUnderscores) {
  for (const char* name : {"a", "mtu", "rx_bytes", "addresses4", "a1_2b", "co_await"})
    EXPECT_TRUE(isName(name)) << name;
  for (const char* name : {"", "A", "1a", "_a", "a_", "a__b", "a-b", "a b", "\xc3\xa4"})
    EXPECT_FALSE(isName(name)) << name;
}

TEST(DescriptionCheck, AnObjectThatTheServiceItselfShowsIsNotThatOfHandler0) {
  Description d;
  d.name = d.nameSpace = "svc";
  d.objects.resize(2);
  d.objects[0].name = "own";
  d.objects[1].name = "other";
  d.objects[1].handler = 0;
  common::Mistakes mistakes;
  check(d, "svc.toml", mistakes);
  EXPECT_TRUE(mistakes.empty());
}

}  // namespace describe
