#pragma once
// tests/lib/log/fixture.h: a process with a loop, whose standard output the test reads.

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "kl/logger.h"
#include "kl/runner.h"
#include "kl/services.h"
#include "tests/lib/log/scripted_socket.h"
#include "tests/support/doubles/log_service.h"

namespace kl::test {

// A line through the plain operation.
inline void say(Logger& logger, Source* source, std::string_view text) {
  logger.log(source, text.data(), static_cast<unsigned int>(text.size()));
}

class LogClient : public ::testing::Test {
 protected:
  LogClient() { ::testing::internal::CaptureStdout(); }
  ~LogClient() override { (void)::testing::internal::GetCapturedStdout(); }

  // The text on standard output since the last call.
  std::string output() {
    std::string text = ::testing::internal::GetCapturedStdout();
    ::testing::internal::CaptureStdout();
    return text;
  }

  // One pass of the loop over what is there; it does not wait.
  void pass() {
    runner.addTimer(
        nullptr, [](void*) {}, 0);
    runner.runSocks(getJiffies());
  }

  Runner runner;
};

// The same with a service, and a Logger that has connected to it.
class ConnectedLogClient : public LogClient {
 protected:
  ConnectedLogClient() { EXPECT_TRUE(service.accept()); }

  LogService service;
  Logger logger;
};

}  // namespace kl::test
