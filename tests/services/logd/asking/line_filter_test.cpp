#include "services/logd/asking/line_filter.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

const Line kLine{1000, originOf({32, 5}, "netif", 812, 3, 1000), "eth0 is down"};

template <class T, class V>
bool passes(kl::field<T> field, const V& value) {
  kl::message request;
  request.insert(field, value);
  return LineFilter(request).passes(kLine);
}

TEST(LineFilter, NoFieldAsksForNothing) { EXPECT_TRUE(LineFilter(kl::message()).passes(kLine)); }

TEST(LineFilter, ALineHasOneOfTheTopics) {
  EXPECT_TRUE(passes(kl::LOG_TOPICS, std::vector<unsigned int>{4, 5}));
  EXPECT_FALSE(passes(kl::LOG_TOPICS, std::vector<unsigned int>{4, 6}));
  EXPECT_FALSE(passes(kl::LOG_TOPICS, std::vector<unsigned int>{0x10005}));
}

TEST(LineFilter, ProcessAndPidAndUserAndSourceAreExact) {
  EXPECT_TRUE(passes(kl::LOG_UID, 1000));
  EXPECT_FALSE(passes(kl::LOG_UID, 0));
  EXPECT_TRUE(passes(kl::LOG_PROCESS, "netif"));
  EXPECT_FALSE(passes(kl::LOG_PROCESS, "net"));
  EXPECT_TRUE(passes(kl::LOG_PID, 812));
  EXPECT_FALSE(passes(kl::LOG_PID, 813));
  EXPECT_TRUE(passes(kl::LOG_SOURCE, 3));
  EXPECT_FALSE(passes(kl::LOG_SOURCE, 0));
}

TEST(LineFilter, ALineIsNotOlderAndItsTextHasWhatIsWanted) {
  EXPECT_TRUE(passes(kl::LOG_SINCE, 1000));
  EXPECT_FALSE(passes(kl::LOG_SINCE, 1001));
  EXPECT_TRUE(passes(kl::LOG_CONTAINS, "is d"));
  EXPECT_FALSE(passes(kl::LOG_CONTAINS, "eth1"));
}

TEST(LineFilter, TheSameWishesAreTheSameFilter) {
  kl::message a;
  a.insert(kl::LOG_TOPICS, {5});
  kl::message b = a;
  b.insert(kl::STD_ID, 7);
  EXPECT_EQ(LineFilter(a), LineFilter(b));
  b.insert(kl::LOG_PID, 0);
  EXPECT_FALSE(LineFilter(a) == LineFilter(b));
}

}  // namespace
}  // namespace logd::test
