#include "services/loader/logging/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "services/loader/transport/descriptors.h"

namespace {

class LoaderLog : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
    out_ = loader::Descriptor(ends[0]);
    in_ = loader::Descriptor(ends[1]);
  }

  std::string readAll() {
    std::string text(1 << 20, '\0');
    const ssize_t n = ::read(out_.get(), text.data(), text.size());
    text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return text;
  }

  loader::Descriptor out_;
  loader::Descriptor in_;
};

TEST_F(LoaderLog, ALineNamesTheProgram) {
  loader::Log(in_.get()).line("netif (32): started");
  EXPECT_EQ(readAll(), "kl-loader: netif (32): started\n");
}

TEST_F(LoaderLog, AReaderThatDoesNotReadLosesLinesAndIsToldHowMany) {
  loader::Log log(in_.get());
  ASSERT_EQ(::fcntl(in_.get(), F_SETFL, 0), 0);  // blocking: a write that waits would hang the test
  for (int i = 0; i < 100000; ++i) log.line("a line of some length that fills the pipe before long");
  (void)readAll();
  log.line("after");
  const std::string text = readAll();
  EXPECT_NE(text.find("lines were lost because nobody took them\nkl-loader: after\n"), std::string::npos)
      << text;
}

TEST_F(LoaderLog, AnOverlongLineIsCut) {
  loader::Log(in_.get()).line(std::string(100000, 'x'));
  const std::string text = readAll();
  EXPECT_LT(text.size(), 4096u);
  EXPECT_EQ(text.back(), '\n');
}

}  // namespace
