#include "services/loader/crashes/service_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "services/loader/logging/log.h"

namespace {

using loader::Caught;
using loader::ServiceOutput;
using loader::Streams;

const std::string kReport = "/bin/x\n--- signal=11 --------------------------------------------\n\nrip=0x1\n";

void say(const common::Descriptor& stream, const std::string& text) {
  ASSERT_EQ(::write(stream.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

std::size_t descriptors() {
  std::size_t count = 0;
  for (int fd = 0; fd < 256; ++fd) count += ::fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  return count;
}

class ServiceOutputTest : public testing::Test {
 protected:
  class Loop : public kl::ThinRunner {};
  Loop loop_;
  loader::Log log_{-1};
};

TEST_F(ServiceOutputTest, TheReportOfAProcessIsThereWhenItHasEnded) {
  ServiceOutput output(loop_, log_, "x");
  {
    const Streams streams = output.open();
    say(streams.output, kReport);
  }
  const Caught caught = output.end();
  EXPECT_EQ(caught.report, kReport);
  EXPECT_EQ(caught.signal, 11u);
}

TEST_F(ServiceOutputTest, TwoDescriptorsAreHeldAtMostHoweverOftenItStarts) {
  const std::size_t before = descriptors();
  ServiceOutput output(loop_, log_, "x");
  for (int i = 0; i < 5; ++i) {
    (void)output.open();
    (void)output.end();
    EXPECT_LE(descriptors(), before + 2);
  }
}

TEST_F(ServiceOutputTest, WhatAFormerProcessHasLeftBehindGoesOnWriting) {
  ServiceOutput output(loop_, log_, "x");
  const Streams former = output.open();
  (void)output.end();
  const Streams next = output.open();
  say(former.output, kReport.substr(0, 7));
  say(next.output, kReport.substr(7));
  EXPECT_EQ(output.end().report, kReport);
}

}  // namespace
