#include "services/logd/keeping/line_text.h"

#include <gtest/gtest.h>

#include "services/logd/config/configuration.h"
#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

TEST(LineText, ALineSaysWhenWhoWhatOfAndWhat) {
  std::vector<Mistake> mistakes;
  const TopicNames names = TopicNames::parse("5 warning", "list", mistakes);
  const Line line{1795241306123456789ull, originOf({5, 300}, "netif", 812), "eth0 is down"};
  EXPECT_EQ(textOf(line, names), "2026-11-21T06:08:26.123456Z netif[812] warning,300: eth0 is down\n");
}

TEST(LineText, ATextCannotPretendToBeAnotherLine) {
  EXPECT_EQ(harmless("a\nb\x1b[0m\x7f\tü"), "a\\x0ab\\x1b[0m\\x7f\\x09ü");
  EXPECT_EQ(textOf({0, originOf({}, "a\nb"), "c\n"}, {}),
            "1970-01-01T00:00:00.000000Z a\\x0ab[7] -: c\\x0a\n");
}

}  // namespace
}  // namespace logd::test
