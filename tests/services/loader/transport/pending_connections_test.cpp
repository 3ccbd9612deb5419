#include "services/loader/transport/pending_connections.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <vector>

#include "kl/runner.h"

namespace loader {
namespace {

constexpr unsigned int kMany = 10;

// Connections on socket pairs, and what the loader around them hears of each: 'f' a frame, 'e' its end.
class StrangersTest : public testing::Test, private ConnectionHost {
 protected:
  void comes() {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    others_.emplace_back(ends[0]);
    const Applicant who{1, 1, nullptr};
    ConnectionHost& host = *this;
    connections_.push_back(
        std::make_unique<Connection>(runner_, host, area_, Descriptor(ends[1]), who, Patience{1, 0}));
  }
  void come(unsigned int count) {
    for (unsigned int i = 0; i < count; ++i) comes();
  }

  void says(unsigned int i, const std::vector<unsigned char>& bytes) {
    EXPECT_EQ(::send(others_[i].get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  void allSay(const std::vector<unsigned char>& bytes) {
    for (unsigned int i = 0; i < others_.size(); ++i) says(i, bytes);
  }

  void ends(unsigned int i) {
    ConnectionHost& host = *this;
    host.onEnd(*connections_[i], "");
  }

  // One pass of the loop: the line is served, and who can be read gets in line.
  std::string pass() {
    heard_.clear();
    strangers_.serve();
    runner_.addTimer(
        nullptr, [](void*) {}, 0);
    runner_.runSocks(kl::getJiffies());
    return heard_;
  }

  const std::vector<unsigned char> kFrame = {2, 0, 0, 0, 'M', '2'};
  const std::vector<unsigned char> kHalf = {2, 0};
  const std::vector<unsigned char> kTooLong = {255, 255, 255, 255};

 private:
  void onBatch() override {}
  const char* onFrame(Connection& connection, std::span<const unsigned char>) override {
    return note('f', connection), nullptr;
  }
  void onStranger(Connection& connection) override { strangers_.add(connection); }
  void onEnd(Connection& connection, const std::string&) override {
    note('e', connection);
    strangers_.forget(connection);
    connection.end();
  }
  void settle() override {}

  void note(char what, const Connection& connection) {
    for (std::size_t i = 0; i < connections_.size(); ++i)
      if (connections_[i].get() == &connection) heard_ += what + std::to_string(i) + " ";
  }

  kl::Runner runner_;
  ReadArea area_;
  Strangers strangers_;
  std::vector<Descriptor> others_;
  std::vector<std::unique_ptr<Connection>> connections_;
  std::string heard_;
};

TEST_F(StrangersTest, NobodyIsServedInThePassThatReportsHim) {
  come(1);
  says(0, kFrame);
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(pass(), "f0 ");
  EXPECT_EQ(pass(), "");
}

TEST_F(StrangersTest, FourAreServedInAPassInTheOrderOfTheLine) {
  come(kMany);
  allSay(kTooLong);
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(pass(), "e9 e8 e7 e6 ") << "poll reports the newest first";
  EXPECT_EQ(pass(), "e5 e4 e3 e2 ");
  EXPECT_EQ(pass(), "e1 e0 ");
}

TEST_F(StrangersTest, WhoTalksOnStandsBehindTheOthers) {
  come(6);
  allSay(kFrame);
  (void)pass();
  for (const unsigned int i : {2U, 3U, 4U, 5U}) says(i, kFrame);
  EXPECT_EQ(pass(), "f5 f5 f4 f4 f3 f3 f2 f2 ");
  for (const unsigned int i : {2U, 3U, 4U, 5U}) says(i, kFrame);
  EXPECT_EQ(pass(), "f1 f0 ");
  EXPECT_EQ(pass(), "f5 f4 f3 f2 ");
}

TEST_F(StrangersTest, WhoHasEndedIsNotServed) {
  come(2);
  allSay(kHalf);
  (void)pass();
  ends(1);
  says(0, {0, 0, 'M', '2'});
  EXPECT_EQ(pass(), "f0 ");
}

}  // namespace
}  // namespace loader
