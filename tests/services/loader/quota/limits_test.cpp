#include "services/loader/quota/limits.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/page.h"

namespace {

using kl::test::pageOf;
using kl::test::shows;
using kl::test::withCommas;
using loader::kKiB;
using loader::kResourceRows;
using loader::Limits;
using loader::Resource;
using loader::ResourceRow;

TEST(Limits, TheDefaultsTakeAtMost24MiBTogether) { EXPECT_LE(Limits().memory(), 24 * 1024 * kKiB); }

TEST(Limits, OneUserCannotTakeWhatAllHave) {
  for (const ResourceRow& row : kResourceRows) EXPECT_LE(2 * row.user, row.all) << row.key;
}

TEST(Limits, ThePageShowsTheDefaults) {
  const std::string page = pageOf("docs/security.md");
  for (const ResourceRow& row : kResourceRows) {
    const std::string shown = " | " + withCommas(row.user) + " | " + withCommas(row.all) + " | " +
                              withCommas(row.reserve) + " | `" + std::string(row.key) + "` |";
    EXPECT_TRUE(shows(page, shown)) << shown;
  }
}

TEST(Limits, TheManualPageShowsTheDefaults) {
  const std::string page = pageOf("docs/man/kl-loader.8");
  for (const ResourceRow& row : kResourceRows) {
    const std::string shown = std::string(row.key) + "\t" + std::to_string(row.user) + "\t" +
                              std::to_string(row.all) + "\t" + std::to_string(row.reserve) + "\n";
    EXPECT_TRUE(shows(page, shown)) << shown;
  }
}

TEST(Limits, EnoughDescriptorsChangeNothing) {
  Limits limits;
  limits.fitDescriptors(1024);
  EXPECT_EQ(limits.all, Limits().all);
  EXPECT_EQ(limits.user, Limits().user);
}

TEST(Limits, FewDescriptorsAreTakenFromOrdinaryUsers) {
  Limits limits;
  limits.fitDescriptors(64);
  EXPECT_EQ(limits.all[Resource::kConnections], 16u);  // half of what the loader does not need for itself
  EXPECT_EQ(limits.user[Resource::kConnections], 6u);  // a third, as by default, so that others get in, too
  EXPECT_EQ(limits.reserve, Limits().reserve);
  limits.fitDescriptors(10);
  EXPECT_EQ(limits.all[Resource::kConnections], 0u);
  EXPECT_EQ(limits.user[Resource::kConnections], 0u);
}

TEST(Limits, WhoHasMoreThanFitsSharesWhatFits) {
  Limits limits;
  limits.user[Resource::kConnections] = limits.all[Resource::kConnections] = 300;
  limits.fitDescriptors(132);
  EXPECT_EQ(limits.all[Resource::kConnections], 50u);
  EXPECT_EQ(limits.user[Resource::kConnections], 50u) << "it is configured that one may have all";
}

}  // namespace
