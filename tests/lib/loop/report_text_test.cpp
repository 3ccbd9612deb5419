#include "loop/report_text.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/lib/loop/report_reader.h"

namespace kl {
namespace {

std::string number(std::uint64_t value, unsigned int base, unsigned int minDigits) {
  return test::reportOf([=](ReportText& out) { out.putNumber("<", value, base, minDigits, ">"); });
}

TEST(ReportText, ZeroWithOneDigitIsZero) { EXPECT_EQ(number(0, 10, 1), "<0>"); }

TEST(ReportText, NumbersArePaddedWithZeros) {
  EXPECT_EQ(number(0x1a, 16, 8), "<0000001a>");
  EXPECT_EQ(number(7, 10, 3), "<007>");
  EXPECT_EQ(number(0, 16, 8), "<00000000>");
}

TEST(ReportText, NumbersLongerThanTheirMinimumAreWhole) {
  EXPECT_EQ(number(0xFFFFFFFFFFFFFFFFu, 16, 8), "<ffffffffffffffff>");
  EXPECT_EQ(number(18446744073709551615u, 10, 1), "<18446744073709551615>");
  EXPECT_EQ(number(0xFFFFFFFFFFFFFFFFu, 2, 1), "<" + std::string(64, '1') + ">");
}

TEST(ReportText, DigitsAboveNineAreLowerCaseLetters) { EXPECT_EQ(number(35 * 36 + 10, 36, 1), "<za>"); }

TEST(ReportText, ABaseOutsideTwoToThirtySixCountsAsTen) {
  for (const unsigned int base : {0u, 1u, 37u, 1000u}) EXPECT_EQ(number(42, base, 1), "<42>");
}

TEST(ReportText, WordsHaveTheDigitsOfTheProcessor) {
  const std::string text = test::reportOf([](ReportText& out) { out.putWord("0x", 0xabc, " "); });
  EXPECT_EQ(text, sizeof(void*) == 8 ? "0x0000000000000abc " : "0x00000abc ");
}

TEST(ReportText, TextLongerThanTheBufferArrivesWhole) {
  std::string expected;
  for (int i = 0; i < 1000; ++i) expected += std::to_string(i) + " ";
  EXPECT_EQ(test::reportOf([&](ReportText& out) { out.put(expected.c_str()); }), expected);
}

TEST(ReportText, AClosedDescriptorIsIgnored) {
  const int fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  ::close(fd);
  ReportText out(fd);
  out.put("nobody reads this");
  out.flush();
}

}  // namespace
}  // namespace kl
