#include "kl/address.h"

#include <gtest/gtest.h>

namespace {

using kl::addressText;
using kl::IPAddr6;
using kl::isIPv4;
using kl::parseAddress;

std::string again(std::string_view text) {
  const auto address = parseAddress(text);
  return address ? addressText(*address) : "none";
}

TEST(Address, LivesThroughItsText) {
  for (const char* text : {"::", "::1", "2001:db8::1", "fe80::1:2:3:4", "1:2:3:4:5:6:7:8", "0.0.0.0",
                           "192.0.2.1", "255.255.255.255"})
    EXPECT_EQ(again(text), text);
}

TEST(Address, IsWrittenAsShortAsIsUsual) {
  EXPECT_EQ(again("2001:DB8:0:0::1"), "2001:db8::1");
  EXPECT_EQ(again("1:0:0:2:0:0:0:3"), "1:0:0:2::3");
}

TEST(Address, OfIPv4IsHeldInAnIPv6One) {
  const IPAddr6 held{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 192, 0, 2, 1}};
  EXPECT_EQ(parseAddress("192.0.2.1"), held);
  EXPECT_EQ(parseAddress("::ffff:192.0.2.1"), held);
  EXPECT_EQ(parseAddress("0000:0000:0000:0000:0000:ffff:192.0.2.1"), held);
  EXPECT_TRUE(isIPv4(held));
  EXPECT_EQ(addressText(held), "192.0.2.1");
}

TEST(Address, OfIPv6IsNoneOfIPv4) {
  EXPECT_FALSE(isIPv4(IPAddr6::zero));
  EXPECT_FALSE(isIPv4(*parseAddress("::fffe:192.0.2.1")));
  EXPECT_FALSE(isIPv4(*parseAddress("1::ffff:192.0.2.1")));
}

TEST(Address, WhatIsNoneGivesNone) {
  for (const char* text :
       {"", " ", "1", "1.2.3", "1.2.3.256", "01.2.3.4", "1.2.3.4.5", "1.2.3.4 ", " ::1", "::1%lo", "::1/64",
        "1::2::3", ":::", "12345::", "g::", "1:2:3:4:5:6:7", "[::1]", "localhost"})
    EXPECT_EQ(parseAddress(text), std::nullopt) << text;
}

TEST(Address, EndsWithTheTextAndNotAtAZeroByte) {
  EXPECT_EQ(again(std::string_view("::1234", 3)), "::1");
  EXPECT_EQ(parseAddress(std::string_view("::1\0", 4)), std::nullopt);
  EXPECT_EQ(parseAddress(std::string(100000, '1')), std::nullopt);
  EXPECT_EQ(parseAddress(std::string(46, '0')), std::nullopt);
}

TEST(Address, AnyBytesLiveThroughTheirText) {
  IPAddr6 address;
  for (unsigned int step = 0; step < 2000; ++step) {
    address.bytes[step * 7 % 16] = static_cast<unsigned char>(step % 3 == 0 ? 0 : step * 31);
    EXPECT_EQ(parseAddress(addressText(address)), address) << "step " << step;
  }
}

}  // namespace
