#include "services/loader/admission/rights.h"

#include <gtest/gtest.h>

#include "tests/support/hex.h"

namespace {

using kl::test::bytes;
using loader::Rights;
using loader::rightsRecords;

TEST(RightsRecords, TheRightsOfAUserAreTwoRecords) {
  // SYS_POLICY 64 and SYS_USER "bob": u32 values first.
  EXPECT_EQ(rightsRecords("bob", Rights::of(64)), bytes("0b00ff09 40 0a00ff21 03 626f62"));
}

TEST(RightsRecords, AllRightsAreEveryBit) {
  EXPECT_EQ(rightsRecords("bob", Rights::everything()), bytes("0b00ff08 ffffffff 0a00ff21 03 626f62"));
}

TEST(SenderRights, ATrustedSenderHasItsNameAndNoGrants) {
  const loader::SenderRights rights = loader::trustedRights("root");
  EXPECT_TRUE(rights.isTrusted);
  EXPECT_EQ(rights.user, bytes("0a00ff21 04 726f6f74"));
  EXPECT_TRUE(rights.grants.empty());
}

}  // namespace
