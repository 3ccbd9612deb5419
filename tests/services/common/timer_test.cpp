#include "services/common/timer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

namespace {

// Counts what its timer does.
class Owner {
 public:
  explicit Owner(kl::ThinRunner& runner) : timer(runner, *this) {}

  unsigned int fired = 0;
  bool wasRunning = false;
  unsigned int startsAgain = 0;  // so often
  std::unique_ptr<Owner>* ends = nullptr;

 private:
  void onTimer() {
    ++fired;
    wasRunning = timer.isRunning();
    if (startsAgain-- > 0) timer.start(0);
    if (ends != nullptr) ends->reset();
  }

 public:
  common::Timer<&Owner::onTimer> timer;
};

class TimerTest : public testing::Test {
 protected:
  void pass() { runner_.runTimers(); }

  kl::ThinRunner runner_;
  std::unique_ptr<Owner> owner_ = std::make_unique<Owner>(runner_);
};

TEST_F(TimerTest, ItFiresOnce) {
  EXPECT_FALSE(owner_->timer.isRunning());
  owner_->timer.start(0);
  EXPECT_TRUE(owner_->timer.isRunning());
  pass();
  pass();
  EXPECT_EQ(owner_->fired, 1U);
  EXPECT_FALSE(owner_->timer.isRunning());
}

TEST_F(TimerTest, ItDoesNotRunWhileItFires) {
  owner_->wasRunning = true;
  owner_->timer.start(0);
  pass();
  EXPECT_FALSE(owner_->wasRunning);
}

TEST_F(TimerTest, ItsOwnerMayStartItAgainWhenItFires) {
  owner_->startsAgain = 1;
  owner_->timer.start(0);
  pass();
  EXPECT_TRUE(owner_->timer.isRunning());
  pass();
  EXPECT_EQ(owner_->fired, 2U);
  EXPECT_FALSE(owner_->timer.isRunning());
}

TEST_F(TimerTest, OneThatIsCancelledDoesNotFire) {
  owner_->timer.start(0);
  owner_->timer.cancel();
  EXPECT_FALSE(owner_->timer.isRunning());
  pass();
  EXPECT_EQ(owner_->fired, 0U);
  owner_->timer.cancel();  // it does not run
}

TEST_F(TimerTest, AStartReplacesTheOneBefore) {
  owner_->timer.start(0);
  owner_->timer.start(360000);
  pass();
  EXPECT_EQ(owner_->fired, 0U);
  owner_->timer.start(0);
  pass();
  EXPECT_EQ(owner_->fired, 1U);
}

TEST_F(TimerTest, ItEndsWithItsOwner) {
  owner_->timer.start(0);
  owner_.reset();
  pass();
  EXPECT_EQ(runner_.sleepTime(kl::getJiffies()), -1);
}

TEST_F(TimerTest, ItsOwnerMayEndWhenItFires) {
  owner_->ends = &owner_;
  owner_->timer.start(0);
  pass();
  EXPECT_EQ(owner_, nullptr);
}

}  // namespace
