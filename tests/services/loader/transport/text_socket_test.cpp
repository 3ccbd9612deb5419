#include "services/loader/transport/text_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <vector>

#include "kl/utilities.h"

namespace {

namespace fs = std::filesystem;
using loader::Descriptor;
using loader::TextSocket;

constexpr std::size_t kMoreThanTheKernelTakes = 8u << 20;
constexpr unsigned int kLong = 60000;  // ticks, more than a test takes
constexpr unsigned int kShort = 10;

// The kernel gives what has come and then the end, or, without a wait, nothing.
struct Heard {
  std::string text;
  bool isEnded = false;
};

Heard readAll(const Descriptor& from) {
  Heard heard;
  char bytes[65536];
  for (;;) {
    const ssize_t got = ::recv(from.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (got > 0) heard.text.append(bytes, static_cast<std::size_t>(got));
    else return heard.isEnded = got == 0, heard;
  }
}

class TextSocketTest : public testing::Test {
 protected:
  TextSocketTest() {
    char name[] = "/tmp/kl-text-XXXXXX";
    folder_ = ::mkdtemp(name);
    path_ = folder_ + "/text";
    EXPECT_EQ(socket_.open(path_, {}), "");
    EXPECT_EQ(::pipe2(awake_, O_CLOEXEC), 0);
    EXPECT_EQ(::write(awake_[1], "", 1), 1);
    runner_.addSocket(
        awake_[0], this, [](void*, int, unsigned int) {}, POLLIN);
  }
  ~TextSocketTest() override {
    fs::remove_all(folder_);
    for (const int end : awake_) ::close(end);
  }

  Descriptor connected() const {
    Descriptor reader = common::newStreamSocket();
    EXPECT_TRUE(common::connectTo(reader.get(), path_));
    return reader;
  }

  // It does not sleep, as there is always something to read.
  void onePass() {
    socket_.onPassOver();
    runner_.runSocks(kl::getJiffies());
    runner_.runTimers();
  }

  int awake_[2] = {-1, -1};
  kl::ThinRunner runner_;
  loader::Log log_{STDERR_FILENO};
  std::string folder_;
  std::string path_;
  std::string text_ = "all is well\n";
  unsigned int made_ = 0;
  TextSocket socket_{runner_, log_,
                     [this] {
                       ++made_;
                       return text_;
                     },
                     kLong};
};

TEST_F(TextSocketTest, WhoConnectsGetsTheTextAndTheEnd) {
  const Descriptor reader = connected();
  onePass();
  const Heard heard = readAll(reader);
  EXPECT_EQ(heard.text, "all is well\n");
  EXPECT_TRUE(heard.isEnded);
  EXPECT_EQ(socket_.readers(), 0u);
}

TEST_F(TextSocketTest, TheTextIsThatOfThePassAndMadeOnceInIt) {
  std::vector<Descriptor> readers;
  for (int i = 0; i < 5; ++i) readers.push_back(connected());
  onePass();
  EXPECT_EQ(made_, 1u);
  for (const Descriptor& reader : readers) EXPECT_EQ(readAll(reader).text, "all is well\n");
  text_ = "no more\n";
  const Descriptor next = connected();
  onePass();
  EXPECT_EQ(readAll(next).text, "no more\n");
}

TEST_F(TextSocketTest, WhileNobodyConnectsNoTextIsMade) {
  onePass();
  EXPECT_EQ(made_, 0u);
}

TEST_F(TextSocketTest, ALongTextComesWholeToWhoReadsOn) {
  text_ = std::string(kMoreThanTheKernelTakes, 'x') + "\n";
  const Descriptor reader = connected();
  onePass();
  EXPECT_EQ(socket_.readers(), 1u);
  std::string all;
  for (Heard heard; !heard.isEnded; onePass()) {
    heard = readAll(reader);
    all += heard.text;
  }
  EXPECT_TRUE(all == text_) << all.size();
  EXPECT_EQ(socket_.readers(), 0u);
}

TEST_F(TextSocketTest, NobodyWaitsForWhoDoesNotRead) {
  text_ = std::string(kMoreThanTheKernelTakes, 'x');
  const Descriptor stuck = connected();
  onePass();
  ASSERT_EQ(socket_.readers(), 1u);
  text_ = "short";
  const Descriptor other = connected();
  onePass();
  EXPECT_EQ(readAll(other).text, "short");
}

TEST_F(TextSocketTest, PatienceEnds) {
  TextSocket impatient(
      runner_, log_, [] { return std::string(kMoreThanTheKernelTakes, 'x'); }, kShort);
  path_ = folder_ + "/impatient";
  ASSERT_EQ(impatient.open(path_, {}), "");
  const Descriptor stuck = connected();
  onePass();
  while (impatient.readers() > 0) onePass();
  const Heard heard = readAll(stuck);
  EXPECT_LT(heard.text.size(), kMoreThanTheKernelTakes);
  EXPECT_TRUE(heard.isEnded);
}

TEST_F(TextSocketTest, OneTooManyTakesThePlaceOfTheOldest) {
  text_ = std::string(kMoreThanTheKernelTakes, 'x');
  std::vector<Descriptor> readers;
  for (std::size_t i = 0; i < TextSocket::kMostReaders + 2; ++i) {
    readers.push_back(connected());
    onePass();
  }
  EXPECT_EQ(socket_.readers(), TextSocket::kMostReaders);
  EXPECT_TRUE(readAll(readers[0]).isEnded);
  EXPECT_TRUE(readAll(readers[1]).isEnded);
  for (std::size_t i = 2; i < readers.size(); ++i) EXPECT_FALSE(readAll(readers[i]).isEnded) << i;
}

TEST_F(TextSocketTest, WhoGoesBeforeTheEndIsForgotten) {
  text_ = std::string(kMoreThanTheKernelTakes, 'x');
  {
    const Descriptor reader = connected();
    onePass();
    ASSERT_EQ(socket_.readers(), 1u);
  }
  onePass();
  EXPECT_EQ(socket_.readers(), 0u);
}

TEST_F(TextSocketTest, ManyWhoComeAtOnceAreAllServed) {
  std::vector<Descriptor> readers;
  for (int i = 0; i < 200; ++i) readers.push_back(connected());
  for (const Descriptor& reader : readers) {
    Heard heard = readAll(reader);
    while (!heard.isEnded) {
      onePass();
      heard = readAll(reader);
    }
    EXPECT_EQ(heard.text, "all is well\n");
  }
  EXPECT_LT(made_, 200u);
}

TEST_F(TextSocketTest, ClosedItLeavesNothing) {
  text_ = std::string(kMoreThanTheKernelTakes, 'x');
  const Descriptor reader = connected();
  onePass();
  socket_.close();
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_TRUE(readAll(reader).isEnded);
  text_ = "again";
  EXPECT_EQ(socket_.open(path_, {}), "");
  const Descriptor second = connected();
  onePass();
  EXPECT_EQ(readAll(second).text, "again");
}

TEST_F(TextSocketTest, WhereItCannotBeTheReasonIsGiven) {
  TextSocket other(runner_, log_, [] { return std::string(); });
  EXPECT_EQ(other.open(folder_ + "/missing/text", {}), folder_ + "/missing/text: No such file or directory");
  EXPECT_EQ(other.open(path_, {}), path_ + ": a loader is running already");
}

}  // namespace
