// Golden log records, as they pass a process's connection to the log service.

#include <gtest/gtest.h>

#include "kl/logger.h"
#include "kl/runner.h"
#include "tests/golden/golden.h"
#include "tests/support/doubles/log_service.h"
#include "tests/support/hex.h"

namespace golden {
namespace {

using kl::test::hex;

// A process that has connected, and whose next source is number 5.
class GoldenLog : public testing::Test {
 protected:
  GoldenLog() {
    EXPECT_TRUE(service.accept());
    for (unsigned short topic = 1; topic < 5; ++topic) logger.registerSource({topic});
    (void)service.receive();
  }

  kl::Runner runner;
  kl::test::LogService service;
  kl::Logger logger;
};

TEST_F(GoldenLog, ASourceIsRegistered) {
  EXPECT_EQ(logger.registerSource({16, 4})->id, 5u);
  EXPECT_EQ(hex(service.receive()), hex(file("registration.rec")));
}

TEST_F(GoldenLog, ALineIsWritten) {
  kl::Source* source = logger.registerSource({16, 4});
  (void)service.receive();
  logger.log(source, "abc", 3);
  EXPECT_EQ(hex(service.receive()), hex(file("line.rec")));
}

TEST_F(GoldenLog, AMuteRecordIsObeyed) {
  const kl::Source* source = logger.registerSource({16, 4});
  service.send(hex(file("mute.rec")));
  runner.addTimer(
      nullptr, [](void*) {}, 0);
  runner.runSocks(kl::getJiffies());
  EXPECT_TRUE(source->muted);
}

}  // namespace
}  // namespace golden
