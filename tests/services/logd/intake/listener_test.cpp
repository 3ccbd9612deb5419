#include "services/logd/intake/listener.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "kl/utilities.h"
#include "tests/services/logd/system.h"

namespace logd::test {
namespace {

namespace fs = std::filesystem;

TEST(LogListener, EveryUserMayConnect) {
  Listener listener;
  EXPECT_EQ(listener.open(), "");
  struct stat about {};
  ASSERT_EQ(::stat(kl::logSocketPath().c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777, 0666u);
  const LogClient client;
  EXPECT_TRUE(listener.accept().isOpen());
  EXPECT_FALSE(listener.accept().isOpen());
}

TEST(LogListener, TheFolderIsMadeAndTheSocketGoesWithIt) {
  fs::remove_all(kl::underRoot("/kelo/logs"));
  {
    Listener listener;
    EXPECT_EQ(listener.open(), "");
    EXPECT_TRUE(fs::exists(kl::logSocketPath()));
  }
  EXPECT_TRUE(fs::is_empty(kl::underRoot("/kelo/logs")));
}

TEST(LogListener, OneThatLivesIsNotReplaced) {
  Listener first;
  Listener second;
  EXPECT_EQ(first.open(), "");
  EXPECT_EQ(second.open(), kl::logSocketPath() + ": a log service is running already");
  const LogClient client;
  EXPECT_TRUE(first.accept().isOpen());
}

TEST(LogListener, WhatAKilledOneLeftIsReplaced) {
  { std::ofstream left(kl::logSocketPath()); }
  { std::ofstream left(kl::logSocketPath() + ".new"); }
  Listener listener;
  EXPECT_EQ(listener.open(), "");
  const LogClient client;
  EXPECT_TRUE(listener.accept().isOpen());
}

}  // namespace
}  // namespace logd::test
