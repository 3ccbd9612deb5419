#include "services/loader/admission/rights.h"

#include <gtest/gtest.h>

#include "tests/support/hex.h"

namespace {

using kl::test::bytes;
using loader::Rights;
using loader::rightsRecords;

TEST(RightsRecords, TheRightsOfAUserAreTwoRecords) {
  // SYS_POLICY 64 and SYS_USER "bob": u32 values first.
  EXPECT_EQ(rightsRecords("bob", Rights{false, 64}), bytes("0b00ff09 40 0a00ff21 03 626f62"));
}

TEST(RightsRecords, WhoHasAllRightsHasNoRecords) {
  EXPECT_TRUE(rightsRecords("root", Rights{true, 64}).empty());
}

}  // namespace
