#include "services/logd/keeping/line_text.h"

#include <gtest/gtest.h>

#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

TEST(LineText, ALineSaysWhenWhoWhatOfAndWhat) {
  common::Mistakes mistakes;
  const TopicNames names = TopicNames::parse("5 warning", "list", mistakes);
  const Line line{1795241306123456789ull, originOf({5, 300}, "netif", 812), "eth0 is down"};
  EXPECT_EQ(textOf(line, names), "2026-11-21T06:08:26.123456Z netif[812] warning,300: eth0 is down\n");
}

TEST(LineText, ATextCannotPretendToBeAnotherLine) {
  EXPECT_EQ(textOf({0, originOf({}), "a\nb\x1b[0m\x7f\tü"}, {}),
            "1970-01-01T00:00:00.000000Z p[7] -: a\\x0ab\\x1b[0m\\x7f\\x09ü\n");
  EXPECT_EQ(textOf({0, originOf({}, "a\nb"), "c\n"}, {}),
            "1970-01-01T00:00:00.000000Z a\\x0ab[7] -: c\\x0a\n");
}

TEST(LineText, AUserOtherThanRootIsShown) {
  EXPECT_EQ(processText({"lab", 814, 1, {}, 1000}), "lab[814,1000]");
  EXPECT_EQ(processText({"netif", 812, 1, {}, 0}), "netif[812]");
}

TEST(LineText, NothingInItSteersATerminal) {
  EXPECT_EQ(textOf({0, originOf({}, "\x1b]0;x\x07"),
                    "\xc2\x9b"
                    "2J \x9b \xe2\x80\xae \\x41"},
                   {}),
            "1970-01-01T00:00:00.000000Z \\x1b]0;x\\x07[7] -: \\xc2\\x9b"
            "2J \\x9b \\xe2\\x80\\xae \\\\x41\n");
}

}  // namespace
}  // namespace logd::test
