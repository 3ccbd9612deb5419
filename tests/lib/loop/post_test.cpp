#include "kl/post.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace kl {
namespace {

class Posts : public ::testing::Test {
 protected:
  void pass() { loop.runSocks(getJiffies()); }

  ThinRunner loop;
  std::optional<Post> inbox{std::in_place, loop};
  std::string ran;
};

TEST_F(Posts, RunInTheirOrderOnTheThreadOfTheLoop) {
  const auto home = std::this_thread::get_id();
  std::thread([&] {
    inbox->post([&] { ran += std::this_thread::get_id() == home ? "first " : "elsewhere "; });
    inbox->post([&] { ran += "second"; });
  }).join();
  EXPECT_EQ(ran, "");
  pass();
  EXPECT_EQ(ran, "first second");
}

TEST_F(Posts, WakeALoopThatWaits) {
  constexpr int kThreads = 4;
  constexpr int kPosts = 500;
  int sums[kThreads] = {};
  int expected[kThreads] = {};
  int left = kThreads * kPosts;
  bool isInOrder = true;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPosts; ++i)
        inbox->post([&, t, i] {
          isInOrder = isInOrder && expected[t]++ == i;
          sums[t] += i;
          --left;
        });
    });
  while (left > 0) pass();  // no timer: a wake-up that is lost ends in the test's time limit
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(isInOrder);
  for (const int sum : sums) EXPECT_EQ(sum, kPosts * (kPosts - 1) / 2);
}

TEST_F(Posts, OfAPostRunInALaterPass) {
  inbox->post([this] {
    ran += "first ";
    inbox->post([this] { ran += "second"; });
  });
  pass();
  EXPECT_EQ(ran, "first ");
  pass();
  EXPECT_EQ(ran, "first second");
}

TEST_F(Posts, MayDestroyTheirInbox) {
  auto token = std::make_shared<int>();
  inbox->post([this] { inbox.reset(); });
  inbox->post([this, token] { ran += "too late"; });
  pass();
  EXPECT_EQ(ran, "");
  EXPECT_EQ(token.use_count(), 1);
}

TEST_F(Posts, ThatHaveNotRunEndWithTheInbox) {
  auto token = std::make_shared<int>();
  inbox->post([this, token] { ran += "too late"; });
  inbox.reset();
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_EQ(ran, "");
}

}  // namespace
}  // namespace kl
