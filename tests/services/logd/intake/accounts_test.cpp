#include "services/logd/intake/accounts.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "kl/services.h"
#include "tests/support/page.h"

namespace logd {
namespace {

constexpr Nanoseconds kOneSecond = 1'000'000'000;
constexpr Nanoseconds kBegin = 5 * kOneSecond;
constexpr unsigned int kNobody = 65534;

Origin processOf(unsigned int pid, unsigned int uid = kNobody) { return {"p", pid, 0, {}, uid}; }

struct AccountsTest : testing::Test {
  std::string texts() const {
    std::string all;
    for (auto n = book.ring().begin(); n != book.ring().end(); ++n) all += book.ring()[n].text + "\n";
    return all;
  }
  void tick(Nanoseconds now) {
    accounts.tick(book, now);
    book.flush(now);
  }

  Limits limits{.linesPerSecond = 10, .burst = 20, .bytesPerSecond = 0};
  LogBook book{BookRules()};
  Accounts accounts{limits};
};

TEST_F(AccountsTest, RootAndTheServicesOwnUserAreTrusted) {
  EXPECT_TRUE(accounts.userOf(0)->isTrusted);
  EXPECT_TRUE(accounts.userOf(::geteuid())->isTrusted);
  EXPECT_FALSE(accounts.userOf(::geteuid() + 1)->isTrusted);
}

TEST_F(AccountsTest, AProcessKeepsItsAccountUntilItHasRecovered) {
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(accounts.processOf(processOf(7))->takeLine(kBegin, 10));
  EXPECT_FALSE(accounts.processOf(processOf(7))->takeLine(kBegin, 10));
  EXPECT_TRUE(accounts.processOf(processOf(8))->takeLine(kBegin, 10)) << "another has its own";
  tick(kBegin + kOneSecond);
  EXPECT_EQ(accounts.size(), 1u) << "the other one has recovered";
  tick(kBegin + 2 * kOneSecond);
  EXPECT_EQ(accounts.size(), 0u);
}

TEST_F(AccountsTest, WhatWasDroppedIsSaidEvenAfterItsProcessHasGone) {
  for (int i = 0; i < 25; ++i) (void)accounts.processOf(processOf(7))->takeLine(kBegin, 10);
  tick(kBegin);
  EXPECT_EQ(texts(), "5 lines dropped: they came too fast\n");
  EXPECT_EQ(book.ring()[0].origin->pid, 7u);
  EXPECT_EQ(book.ring()[0].origin->uid, kNobody);
}

TEST_F(AccountsTest, WhileAProcessMayNotWriteItsDropsAreOnlyCounted) {
  const auto account = accounts.processOf(processOf(7));
  for (int i = 0; i < 25; ++i) (void)account->takeLine(kBegin, 10);
  tick(kBegin + 1);
  EXPECT_EQ(texts(), "");
  tick(kBegin + kOneSecond);
  EXPECT_EQ(texts(), "5 lines dropped: they came too fast\n");
}

TEST_F(AccountsTest, RemarksThatWereLeftOutAreCounted) {
  for (unsigned int i = 0; i < UserAccount::kMostRemarksAtOnce + 30; ++i)
    accounts.processOf(processOf(100 + i))->remark(book, kBegin, "remark");
  accounts.processOf(processOf(1, 1000))->remark(book, kBegin, "of another user");
  book.flush(kBegin);
  EXPECT_EQ(book.ring().end(), UserAccount::kMostRemarksAtOnce + 1);
  tick(kBegin + kOneSecond);
  EXPECT_EQ(book.ring()[book.ring().end() - 1].text, "left out 30 remarks about processes of the user 65534");
}

TEST_F(AccountsTest, FiftyThousandProcessesOfAUserShareAccounts) {
  for (unsigned int pid = 1; pid <= 50000; ++pid)
    (void)accounts.processOf(processOf(pid))->takeLine(kBegin, 10);
  EXPECT_EQ(accounts.size(), 4 * limits.clientsPerUser + 1);
  EXPECT_EQ(accounts.processOf(processOf(50001)), accounts.processOf(processOf(50002)));
  EXPECT_NE(accounts.processOf(processOf(1)), accounts.processOf(processOf(50002)))
      << "who was first has its own";
  EXPECT_NE(accounts.processOf(processOf(50001, 1000)), accounts.processOf(processOf(50002, 1000)))
      << "and another user";
  tick(kBegin + 3 * kOneSecond);
  EXPECT_TRUE(texts().ends_with(" lines dropped: they came too fast\n")) << texts();
  tick(kBegin + 6 * kOneSecond);
  tick(kBegin + 7 * kOneSecond);
  EXPECT_EQ(accounts.size(), 0u);
  EXPECT_NE(accounts.processOf(processOf(50001)), accounts.processOf(processOf(50002)));
}

TEST_F(AccountsTest, ManyUsersWithManyProcessesStayWithinTheNumberOfAll) {
  for (unsigned int uid = 1000; uid < 4000; ++uid)
    for (unsigned int pid = 1; pid <= 20; ++pid)
      (void)accounts.processOf(processOf(pid, uid))->takeLine(kBegin, 10);
  EXPECT_LE(accounts.size(), 16 * limits.clients + Accounts::kMostUsers + 1);
  EXPECT_NE(accounts.processOf(processOf(1, 0)), accounts.processOf(processOf(2, 0))) << "root has its own";
  EXPECT_EQ(accounts.userOf(8000), accounts.userOf(8001)) << "users beyond their number are one";
  EXPECT_NE(accounts.userOf(8000), accounts.userOf(1000));
}

TEST_F(AccountsTest, ANumberThatIsUsedAgainHasItsNewName) {
  (void)accounts.processOf({"old", 7, 0, {}, kNobody});
  accounts.processOf({"new", 7, 0, {}, kNobody})->remark(book, kBegin, "remark");
  book.flush(kBegin);
  EXPECT_EQ(book.ring()[0].origin->process, "new");
}

TEST(AccountsOnThePage, AreThoseOfTheCode) {
  using kl::test::withCommas;
  const Limits plain;
  const unsigned int ofUser = plain.clientsPerUser * Accounts::kAccountsPerClient;
  const unsigned int ofAll = plain.clients * Accounts::kAccountsPerClient * Accounts::kAccountsPerClient;
  const std::string page = kl::test::pageOf("docs/security.md");
  for (const std::string& row :
       {withCommas(plain.clientsPerUser) + ", never the last " + withCommas(plain.clients / 4) + " of " +
            withCommas(plain.clients),
        withCommas(plain.idleSeconds) + " s, if there is none",
        withCommas(plain.linesPerSecond) + " and " + withCommas(plain.bytesPerSecond / 1024 / 1024) +
            " MiB a second",
        withCommas(ofUser) + ", in all " + withCommas(ofAll), withCommas(UserAccount::kMostSources) + " |",
        withCommas(UserAccount::kMostRemarksAtOnce) + ", then " + withCommas(UserAccount::kRemarksPerSecond) +
            " a second"})
    EXPECT_TRUE(kl::test::shows(page, "| " + row)) << row;
}

}  // namespace
}  // namespace logd
