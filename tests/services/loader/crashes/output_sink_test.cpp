#include "services/loader/crashes/output_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

class OutputSinkTest : public testing::Test {
 protected:
  struct Pipe {
    Pipe() { EXPECT_EQ(::pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0); }
    ~Pipe() {
      ::close(ends[0]);
      ::close(ends[1]);
    }
    int ends[2] = {};
  };

  static std::string read(int fd) {
    std::string text;
    char bytes[65536];
    for (ssize_t n = 0; (n = ::read(fd, bytes, sizeof bytes)) > 0;)
      text.append(bytes, static_cast<std::size_t>(n));
    return text;
  }

  Pipe output_;
  Pipe log_;
  loader::Log lines_{log_.ends[1]};
  loader::OutputSink sink_{output_.ends[1], "leases", lines_};
};

TEST_F(OutputSinkTest, WhatIsWrittenComesOutWhole) {
  const std::string text(10000, 'x');
  sink_.write(text);
  EXPECT_EQ(read(output_.ends[0]), text);
  EXPECT_EQ(read(log_.ends[0]), "");
}

TEST_F(OutputSinkTest, WhatNobodyTakesIsLostAndTheLogSaysHowMuch) {
  const std::string text(100000, 'x');
  sink_.write(text);
  const std::size_t taken = read(output_.ends[0]).size();
  EXPECT_LT(taken, text.size());
  sink_.write("y");
  EXPECT_EQ(read(output_.ends[0]), "y");
  EXPECT_EQ(read(log_.ends[0]), "kl-loader: leases: " + std::to_string(text.size() - taken) +
                                    " bytes of its output were lost because nobody took them\n");
}

}  // namespace
