#include "services/system/zone_watch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "tests/services/system/zone_file.h"

namespace kl_system {
namespace {

namespace fs = std::filesystem;

constexpr unsigned int kPatienceTicks = 1000;

// A loop that runs until the offset changes, and a folder for zone files.
class ZoneWatched : public testing::Test {
 protected:
  ZoneWatched() {
    char name[] = "/tmp/zone-watch-XXXXXX";
    folder_ = ::mkdtemp(name);
    file_ = folder_ + "/localtime";
    ::setenv("TZ", (":" + file_).c_str(), 1);
  }
  ~ZoneWatched() override { fs::remove_all(folder_); }

  class Loop : public kl::Runner {
   public:
    void onChange() {
      ++changes;
      stop_ = true;
    }
    void onPatience() { stop_ = true; }
    void wait(unsigned int ticks = kPatienceTicks) {
      stop_ = false;
      const kl::TimerPtr end = addTimer(this, kl::bind<Loop, &Loop::onPatience>(), ticks);
      run();
      removeTimer(end);
    }
    int changes = 0;
  };

  static constexpr auto kOnChange = kl::bind<Loop, &Loop::onChange>();

  Loop loop_;
  std::string folder_;
  std::string file_;
};

}  // namespace

TEST_F(ZoneWatched, AFileThatTakesTheNameIsNoticed) {
  replaceFile(file_, zoneBytes(3600));
  const ZoneWatch watch(loop_, file_, &loop_, kOnChange);
  EXPECT_EQ(watch.offset(), 3600);
  replaceFile(file_, zoneBytes(7200));
  loop_.wait();
  EXPECT_EQ(loop_.changes, 1);
  EXPECT_EQ(watch.offset(), 7200);
  replaceFile(file_, zoneBytes(-3600));
  loop_.wait();
  EXPECT_EQ(loop_.changes, 2);
  EXPECT_EQ(watch.offset(), -3600);
}

TEST_F(ZoneWatched, ALinkThatLeadsElsewhereIsNoticed) {
  replaceFile(folder_ + "/east", zoneBytes(3600));
  replaceFile(folder_ + "/west", zoneBytes(-3600));
  fs::create_symlink("east", file_);
  const ZoneWatch watch(loop_, file_, &loop_, kOnChange);
  fs::create_symlink("west", file_ + ".new");
  fs::rename(file_ + ".new", file_);
  loop_.wait();
  EXPECT_EQ(watch.offset(), -3600);
}

TEST_F(ZoneWatched, AFileBehindTheLinkThatIsReplacedIsNoticed) {
  fs::create_directory(folder_ + "/zoneinfo");
  replaceFile(folder_ + "/zoneinfo/east", zoneBytes(3600));
  fs::create_symlink("zoneinfo/east", file_);
  const ZoneWatch watch(loop_, file_, &loop_, kOnChange);
  for (const int offset : {5400, 7200}) {
    replaceFile(folder_ + "/zoneinfo/east", zoneBytes(offset));
    loop_.wait();
    EXPECT_EQ(watch.offset(), offset);
  }
}

TEST_F(ZoneWatched, AFileThatIsRemovedMeansUtcAndOneThatComesIsTaken) {
  replaceFile(file_, zoneBytes(3600));
  const ZoneWatch watch(loop_, file_, &loop_, kOnChange);
  fs::remove(file_);
  loop_.wait();
  EXPECT_EQ(watch.offset(), 0);
  replaceFile(file_, zoneBytes(7200));
  loop_.wait();
  EXPECT_EQ(watch.offset(), 7200);
}

TEST_F(ZoneWatched, AZoneOfTheSameOffsetIsNoChange) {
  replaceFile(file_, zoneBytes(3600));
  const ZoneWatch watch(loop_, file_, &loop_, kOnChange);
  replaceFile(file_, zoneBytes(3600));
  replaceFile(folder_ + "/other", zoneBytes(7200));
  loop_.wait(50);
  EXPECT_EQ(loop_.changes, 0);
}

TEST_F(ZoneWatched, WhatTheZoneForeseesHappensAtItsMoment) {
  const std::time_t moment = std::time(nullptr) + 2;
  replaceFile(file_, zoneBytes(3600, {{moment, 7200}}));
  const ZoneWatch watch(loop_, file_, &loop_, kOnChange);
  EXPECT_EQ(watch.offset(), 3600);
  loop_.wait();
  std::timespec now{};  // time() may be a few milliseconds behind
  ASSERT_EQ(::clock_gettime(CLOCK_REALTIME, &now), 0);
  EXPECT_GE(now.tv_sec, moment);
  EXPECT_EQ(loop_.changes, 1);
  EXPECT_EQ(watch.offset(), 7200);
}

}  // namespace kl_system
