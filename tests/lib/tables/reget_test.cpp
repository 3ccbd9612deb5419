// The re-fetch that waits.

#include <gtest/gtest.h>

#include <deque>

#include "kl/reget.h"
#include "tests/lib/tables/fixture.h"

namespace kl {
namespace {

using test::chunk;
using test::Ids;
using test::object;
using test::to;

// A Looper whose exchanges are answered by the test.
class Scripted : public Looper {
 public:
  using Looper::Looper;
  message exchangeMessage(message& m, int timeout) override {
    requests.push_back(m);
    timeouts.push_back(timeout);
    if (replies.empty()) return errorMsg(ERROR_TIMEOUT, "");
    const message reply = replies.front();
    replies.pop_front();
    return reply;
  }
  std::deque<message> replies;
  std::vector<message> requests;
  std::vector<int> timeouts;
};

struct RegetTest : ::testing::Test {
  Scripted& looper() { return *net.looper; }
  Ids walk() {
    Ids ids;
    while (!reget.isEmpty()) ids.push_back(reget.pop().get(STD_ID, BADID));
    return ids;
  }
  test::ConnectedAs<Scripted> net;
  FullReget reget;
};

message stamped(message m, unsigned int filter) {
  m.insert(REGET_FILTER, filter);
  return m;
}

// Its objects are given.
class Given : public Reget {
 public:
  explicit Given(std::deque<message> objects) : objects_(std::move(objects)) {}
  bool load() override {
    ++loads;
    if (objects_.empty()) return false;
    current_ = objects_.front();
    objects_.pop_front();
    return true;
  }
  const message& base() const { return base_; }
  int loads = 0;

 private:
  std::deque<message> objects_;
};

TEST_F(RegetTest, TheFilterIsStampedIntoTheBaseWhicheverComesFirst) {
  Given later({});
  later.setFilter(7);
  EXPECT_EQ(later.base(), message());
  later.setBase(to({32}));
  EXPECT_EQ(later.base(), stamped(to({32}), 7));

  Given before({});
  before.setBase(to({32}));
  EXPECT_EQ(before.base(), stamped(to({32}), 0)) << "the filter at that time";
  before.setFilter(7);
  EXPECT_EQ(before.base(), stamped(to({32}), 0)) << "it has one";

  Given own({});
  own.setBase(stamped(to({32}), 9));
  own.setFilter(7);
  EXPECT_EQ(own.base(), stamped(to({32}), 9));
}

TEST_F(RegetTest, IsEmptyLoadsOnceUntilTheObjectIsTaken) {
  Given given({object(1)});
  EXPECT_FALSE(given.isEmpty());
  EXPECT_FALSE(given.isEmpty());
  EXPECT_EQ(given.loads, 1);
  EXPECT_EQ(given.pop(), stamped(object(1), 0));
  EXPECT_TRUE(given.isEmpty());
  EXPECT_TRUE(given.isEmpty());
  EXPECT_EQ(given.loads, 2) << "an end is final";
}

TEST_F(RegetTest, APoppedObjectThatHasAFilterValueKeepsIt) {
  Given given({stamped(object(1), 5), object(2)});
  given.setFilter(7);
  ASSERT_FALSE(given.isEmpty());
  EXPECT_EQ(given.pop(), stamped(object(1), 5));
  ASSERT_FALSE(given.isEmpty());
  EXPECT_EQ(given.pop(), stamped(object(2), 7));
}

TEST_F(RegetTest, AllInOneReplyIsOneRequest) {
  looper().replies = {chunk({1, 2, 3})};
  reget.setBase(to({32}));
  EXPECT_EQ(walk(), (Ids{1, 2, 3}));
  ASSERT_EQ(looper().requests.size(), 1u);
  message expected = stamped(to({32}), 0);
  expected.insert(SYS_CMD, CMD_GETALL);
  EXPECT_EQ(looper().requests[0], expected);
}

TEST_F(RegetTest, EachChunkIsAskedForWhereTheLastOneEnded) {
  looper().replies = {chunk({1, 2}, 5), chunk({5}, 9), chunk({9})};
  reget.setBase(to({32}));
  EXPECT_EQ(walk(), (Ids{1, 2, 5, 9}));
  ASSERT_EQ(looper().requests.size(), 3u);
  EXPECT_FALSE(looper().requests[0].has(STD_GETALLID));
  EXPECT_EQ(looper().requests[1].get(STD_GETALLID, 0), 5u);
  EXPECT_EQ(looper().requests[2].get(STD_GETALLID, 0), 9u);
}

TEST_F(RegetTest, ChunksWithoutObjectsArePassedOver) {
  looper().replies = {chunk({}, 5), chunk({}, 6), chunk({6}, 7), chunk({})};
  reget.setBase(to({32}));
  EXPECT_EQ(walk(), Ids{6});
  EXPECT_EQ(looper().requests.size(), 4u);
}

TEST_F(RegetTest, ATableWithoutObjectsIsEmpty) {
  looper().replies = {chunk({})};
  reget.setBase(to({32}));
  EXPECT_TRUE(reget.isEmpty());
  EXPECT_EQ(looper().requests.size(), 1u);
}

TEST_F(RegetTest, TheBasesOwnCommandAndStartAreUsed) {
  message base = to({32});
  base.insert(SYS_CMD, 0x60001);
  base.insert(STD_GETALLID, 4);
  looper().replies = {chunk({4}, 8), chunk({8})};
  reget.setBase(base);
  EXPECT_EQ(walk(), (Ids{4, 8}));
  EXPECT_EQ(looper().requests[0].get(SYS_CMD, 0), 0x60001u);
  EXPECT_EQ(looper().requests[0].get(STD_GETALLID, 0), 4u);
}

TEST_F(RegetTest, AReplyMayTakeAMinuteOrWhatIsSet) {
  looper().replies = {chunk({1}, 2), chunk({2}, 3), chunk({3})};
  reget.setBase(to({32}));
  ASSERT_FALSE(reget.isEmpty());
  (void)reget.pop();
  reget.setTimeout(50);
  ASSERT_FALSE(reget.isEmpty());
  (void)reget.pop();
  reget.setTimeout(0);
  ASSERT_FALSE(reget.isEmpty());
  EXPECT_EQ(looper().timeouts, (std::vector<int>{6000, 50, 6000}));
}

TEST_F(RegetTest, AnErrorIsALineAndTheEnd) {
  looper().replies = {chunk({1}, 2), errorMsg(ERROR_BUSY, "later")};
  reget.setBase(to({32}));
  testing::internal::CaptureStdout();
  EXPECT_EQ(walk(), Ids{1});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "FULLREGET: later (12)\n");
  EXPECT_EQ(looper().requests.size(), 2u);
}

TEST_F(RegetTest, AnErrorThatSaysWhereToGoOnIsALineAndPassedOver) {
  message error = errorMsg(ERROR_BUSY, "");
  error.insert(STD_GETALLID, 7);
  looper().replies = {error, chunk({7})};
  reget.setBase(to({32}));
  testing::internal::CaptureStdout();
  EXPECT_EQ(walk(), Ids{7});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "FULLREGET: " + getError(error) + "\n");
}

}  // namespace
}  // namespace kl
