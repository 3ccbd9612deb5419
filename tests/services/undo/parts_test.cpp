#include "services/undo/parts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <string>

namespace undo {
namespace {

constexpr std::size_t kRoom = 6;

// Records in a room for six: what is too much goes.
class UndoParts : public testing::Test {
 protected:
  unsigned int report(const Origin& origin) {
    parts_.add(++last_, origin);
    kept_.push_back(last_);
    if (kept_.size() <= kRoom) return last_;
    const unsigned int gone = parts_.firstToGo(origin);
    parts_.remove(gone);
    std::erase(kept_, gone);
    return last_;
  }

  bool isKept(unsigned int id) const { return std::find(kept_.begin(), kept_.end(), id) != kept_.end(); }

  Parts parts_;
  std::deque<unsigned int> kept_;
  unsigned int last_ = 0;
};

}  // namespace

TEST_F(UndoParts, OnesOwnOldestGoFirst) {
  for (int i = 0; i < 8; ++i) report({"root", "alice"});
  EXPECT_EQ(kept_, (std::deque<unsigned int>{3, 4, 5, 6, 7, 8}));
}

TEST_F(UndoParts, AFloodDoesNotPushOutAnotherReportersRecords) {
  const unsigned int first = report({"netif", "alice"});
  const unsigned int second = report({"netif", "bob"});
  for (int i = 0; i < 100; ++i) report({"guest", "guest"});
  EXPECT_TRUE(isKept(first));
  EXPECT_TRUE(isKept(second));
}

TEST_F(UndoParts, AReporterWhoNamesOthersTakesNothingFromThem) {
  const unsigned int alices = report({"netif", "alice"});
  for (int i = 0; i < 100; ++i) report({"guest", "alice" + std::to_string(i)});
  for (int i = 0; i < 100; ++i) report({"guest", "alice"});
  EXPECT_TRUE(isKept(alices));
}

TEST_F(UndoParts, OneUsersChangesAtAServiceDoNotPushOutAnothersThere) {
  const unsigned int alices = report({"netif", "alice"});
  for (int i = 0; i < 100; ++i) report({"netif", "guest"});
  EXPECT_TRUE(isKept(alices));
}

TEST_F(UndoParts, WhoHasAnEqualPartLosesNothing) {
  for (int i = 0; i < 3; ++i) report({"alice", "alice"});
  for (int i = 0; i < 100; ++i) report({"guest", "guest"});
  EXPECT_TRUE(isKept(1) && isKept(2) && isKept(3));
}

TEST_F(UndoParts, ALargePartGivesWayToANewcomer) {
  for (int i = 0; i < 6; ++i) report({"alice", "alice"});
  const unsigned int newcomers = report({"bob", "bob"});
  EXPECT_TRUE(isKept(newcomers));
  EXPECT_FALSE(isKept(1));
}

TEST_F(UndoParts, AnOriginIsKnownAsLongAsItsRecord) {
  const unsigned int id = report({"netif", "alice"});
  EXPECT_EQ(parts_.originOf(id), (Origin{"netif", "alice"}));
  parts_.remove(id);
  parts_.remove(id);
  EXPECT_EQ(parts_.originOf(id), Origin());
}

TEST_F(UndoParts, ARecordThatChangesItsOriginIsCountedOnce) {
  parts_.add(1, {"netif", "alice"});
  parts_.add(1, {"netif", "bob"});
  parts_.add(2, {"netif", "bob"});
  EXPECT_EQ(parts_.firstToGo({"netif", "bob"}), 1u);
  parts_.remove(1);
  EXPECT_EQ(parts_.firstToGo({"netif", "bob"}), 2u);
}

}  // namespace undo
