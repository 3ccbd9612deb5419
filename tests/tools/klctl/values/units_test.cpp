#include "tools/klctl/values/units.h"

#include <gtest/gtest.h>

namespace klctl {
namespace {

constexpr unsigned long long kMost = 0xffffffff;

}  // namespace

TEST(Units, ANumberHasItsUnitBehindIt) {
  EXPECT_EQ(withUnit("7", ""), "7");
  EXPECT_EQ(withUnit("1500", "bytes"), "1500 bytes");
  EXPECT_EQ(withUnit("42", "1/100"), "42/100");
  EXPECT_EQ(withUnit("500", "10 ms"), "500 x 10 ms");
}

TEST(Units, WhatIsShownIsReadBack) {
  for (const std::string unit : {"bytes", "messages", "s", "10 ms", "1/100"})
    EXPECT_EQ(parseQuantity(withUnit("42", unit), unit, kMost), 42u) << unit;
}

TEST(Units, OtherUnitsOfTheSameKindAreConverted) {
  EXPECT_EQ(parseQuantity("90min", "s", kMost), 5400u);
  EXPECT_EQ(parseQuantity("2 d", "h", kMost), 48u);
  EXPECT_EQ(parseQuantity("5s", "10 ms", kMost), 500u);
  EXPECT_EQ(parseQuantity("3ms", "ns", kMost), 3'000'000u);
  EXPECT_EQ(parseQuantity("2KiB", "bytes", kMost), 2048u);
  EXPECT_EQ(parseQuantity("4096 bytes", "KiB", kMost), 4u);
}

TEST(Units, WhatIsNoWholeNumberOfTheUnitIsNothing) {
  EXPECT_FALSE(parseQuantity("5ms", "10 ms", kMost));
  EXPECT_FALSE(parseQuantity("100 bytes", "KiB", kMost));
  EXPECT_FALSE(parseQuantity("1s", "bytes", kMost));
  EXPECT_FALSE(parseQuantity("5", "s", kMost));  // a bare number is no quantity
  EXPECT_FALSE(parseQuantity("s", "s", kMost));
  EXPECT_FALSE(parseQuantity("5 apples", "s", kMost));
  EXPECT_FALSE(parseQuantity("5 ", "", kMost));
  EXPECT_FALSE(parseQuantity("-5 s", "s", kMost));
}

TEST(Units, WhatDoesNotFitIsNothing) {
  EXPECT_EQ(parseQuantity("4294967295 s", "s", kMost), kMost);
  EXPECT_FALSE(parseQuantity("4294967296 s", "s", kMost));
  EXPECT_FALSE(parseQuantity("18446744073709551615 d", "s", ~0ull));
  EXPECT_FALSE(parseQuantity("18446744073709551616 s", "s", ~0ull));
  EXPECT_FALSE(parseQuantity("1s", "0 s", kMost));
  EXPECT_FALSE(parseQuantity("1s", "18446744073709551615 d", kMost));
}

TEST(Units, ANameMaySayItsUnit) {
  EXPECT_TRUE(saysUnit("rx_bytes", "bytes"));
  EXPECT_TRUE(saysUnit("messages_in", "messages"));
  EXPECT_FALSE(saysUnit("mtu", "bytes"));
  EXPECT_FALSE(saysUnit("kilobytes", "bytes"));
}

TEST(Ages, AgesAreShownAsPeopleSayThem) {
  EXPECT_EQ(ageText(0), "0 ms");
  EXPECT_EQ(ageText(999), "999 ms");
  EXPECT_EQ(ageText(1000), "1.0 s");
  EXPECT_EQ(ageText(59'999), "59.9 s");
  EXPECT_EQ(ageText(60'000), "1 min");
  EXPECT_EQ(ageText(3'600'000), "1 h");
}

}  // namespace klctl
