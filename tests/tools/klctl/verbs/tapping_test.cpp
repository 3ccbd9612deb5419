#include "tools/klctl/verbs/tapping.h"

#include <gtest/gtest.h>

#include "services/common/tap.h"
#include "tests/tools/klctl/recorded_channels.h"

namespace klctl {
namespace {

namespace tap = common::tap;

kl::message requestOf(std::vector<const char*> words) {
  return tapRequest(parsed(std::move(words)), [](const kl::message&) -> kl::message {
    throw Failure(Status::kRefused, "numbers need no table");
  });
}

}  // namespace

TEST(Tapping, WhatIsNotSaidIsNotAskedFor) {
  kl::message expected;
  expected.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  EXPECT_EQ(requestOf({"trace"}), expected);
}

TEST(Tapping, EachWishIsAField) {
  const kl::message m =
      requestOf({"capture", "-o", "x", "32", "28", "--command", "CMD_GET", "--errors", "--slow", "2s"});
  EXPECT_EQ(m.get(tap::SERVICES, {}), std::vector<unsigned int>{32});
  EXPECT_EQ(m.get(tap::PEER, 0), 28u);
  EXPECT_EQ(m.get(tap::COMMAND, 0), kl::CMD_GET);
  EXPECT_TRUE(m.get(tap::ERRORS, false));
  EXPECT_EQ(m.get(tap::SLOW, 0), 2000u);
}

TEST(Tapping, TheWishIsASentence) {
  EXPECT_EQ(tapWish(parsed({"trace"})), "messages of all services");
  EXPECT_EQ(tapWish(parsed({"trace", "netif", "web", "--errors", "--command", "CMD_GET"})),
            "errors between netif and web, command CMD_GET");
  EXPECT_EQ(tapWish(parsed({"trace", "netif", "--slow", "10ms"})), "replies of netif, 10 ms and slower");
}

}  // namespace klctl
