// The output of services, under the loader as it runs, at a log service that the test plays.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "kl/services.h"
#include "tests/services/loader/supervision.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/log_service.h"

namespace {

using kl::test::LoaderProcess;
using kl::test::service;

class OutputOfServices : public kl::test::Supervision {
 protected:
  std::string speaker(const std::string& name, unsigned int id) {
    return name + " (" + std::to_string(id) + ", pid " + std::to_string(row(id).get(kl::SVC_PID, 0)) + "): ";
  }

  // All that has come, when the loader has ended.
  std::string logged() {
    EXPECT_TRUE(log_.accept());
    const std::vector<unsigned char> bytes = log_.receive();
    return {bytes.begin(), bytes.end()};
  }

  kl::test::LogService log_;
};

class LinesOfTheLoader : public kl::test::Supervision {};

TEST_F(OutputOfServices, GoesToTheLogBehindTheNameOfItsProcess) {
  const LoaderProcess loader(service("talker", 32, "chatter hello"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32}));
  EXPECT_TRUE(log_.awaits(speaker("talker", 32) + "hello"));
  EXPECT_TRUE(loader.logs("hello\n")) << loader.log();
}

TEST_F(OutputOfServices, WhateverItIsItComesAsLinesBeforeTheEndOfItsProcessIsTold) {
  LoaderProcess loader(service("junk", 32, "junk"));
  ASSERT_TRUE(loader.logs("ended with status 0")) << loader.log();
  loader.signal(SIGTERM);
  EXPECT_EQ(loader.waitForEnd(), 0);
  const std::string all = logged();
  EXPECT_NE(all.find("): \xff\xe2\x90\x9b[2J\xe2\x90\x80"), std::string::npos) << all;
  EXPECT_NE(all.find("): " + std::string(1024, 'l')), std::string::npos) << all;
  EXPECT_EQ(all.find(std::string(1025, 'l')), std::string::npos) << all;
  ASSERT_NE(all.find("): unfinished"), std::string::npos) << all;
  EXPECT_LT(all.find("): unfinished"), all.find("): ended with status 0")) << all;
}

// Nobody reads what the loader has for the log until the service, which has written everything, answers.
TEST_F(OutputOfServices, AFloodWaitsForNobodyAndItsLossIsTold) {
  const LoaderProcess loader(service("flood", 32, "flood 4000000"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32}));
  EXPECT_TRUE(log_.awaits(speaker("flood", 32) + std::string(49, 'f')));
  EXPECT_TRUE(log_.awaits(" lines not logged"));
}

TEST_F(OutputOfServices, WhatTheLogServiceWritesDoesNotComeBackToIt) {
  LoaderProcess loader(service("log", kl::SERVICE_LOG, "chatter hello"));
  ASSERT_TRUE(loader.logs("hello\n")) << loader.log();
  loader.signal(SIGTERM);
  EXPECT_EQ(loader.waitForEnd(), 0);
  const std::string all = logged();
  EXPECT_NE(all.find("log (18, pid "), std::string::npos) << all;
  EXPECT_EQ(all.find("hello"), std::string::npos) << all;
}

// A line waits for the log service, whose socket is there before it registers.
TEST_F(LinesOfTheLoader, AreOnTheirWayToTheLogWhenItsServiceIsConfirmed) {
  const LoaderProcess loader(service("echo", 32, "serve"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32}));
  kl::test::LogService log;
  const auto service = kl::test::RawPeer::registered(kl::SERVICE_LOG);
  EXPECT_TRUE(log.accept());
  EXPECT_TRUE(log.awaits("echo (32"));
}

}  // namespace
