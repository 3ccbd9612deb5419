#include "services/loader/transport/pending_connections.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "kl/runner.h"

namespace loader {
namespace {

constexpr unsigned int kMany = 10;

// Connections on socket pairs, and what their hosts hear: 'f' a frame, 'e' the end.
class PendingConnectionsTest : public testing::Test {
 protected:
  void comes() {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    others_.emplace_back(ends[0]);
    clients_.push_back(std::make_unique<Client>(*this, clients_.size(), Descriptor(ends[1])));
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

  void ends(unsigned int i) { clients_[i]->onConnectionClosed(""); }

  // One pass of the loop: the queue is served, and whoever can be read is queued.
  std::string pass() {
    heard_.clear();
    pending_.serve();
    runner_.addTimer(
        nullptr, [](void*) {}, 0);
    runner_.runSocks(kl::getJiffies());
    return heard_;
  }

  const std::vector<unsigned char> kFrame = {2, 0, 0, 0, 'M', '2'};
  const std::vector<unsigned char> kHalf = {2, 0};
  const std::vector<unsigned char> kTooLong = {255, 255, 255, 255};

 private:
  class Client final : public ConnectionHost {
   public:
    Client(PendingConnectionsTest& test, std::size_t number, Descriptor socket)
        : test_(test),
          name_(std::to_string(number) + " "),
          connection_(test.runner_, *this, test.area_, test.turns_, std::move(socket),
                      Connection::Origin::kAccepted, Patience{1, 0}) {}

    void onBatch() override {}
    const char* onFrame(std::span<const unsigned char>) override {
      test_.heard_ += "f" + name_;
      return nullptr;
    }
    void onPendingReadable() override { test_.pending_.add(connection_); }
    void onConnectionClosed(const std::string&) override {
      test_.heard_ += "e" + name_;
      test_.pending_.forget(connection_);
      connection_.close();
    }
    void settle() override {}

   private:
    PendingConnectionsTest& test_;
    std::string name_;
    Connection connection_;
  };

  kl::Runner runner_;
  ReadArea area_;
  Work work_;
  Turns turns_{work_};
  PendingConnections pending_;
  std::vector<Descriptor> others_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::string heard_;
};

TEST_F(PendingConnectionsTest, NobodyIsServedInThePassThatReportsHim) {
  come(1);
  says(0, kFrame);
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(pass(), "f0 ");
  EXPECT_EQ(pass(), "");
}

TEST_F(PendingConnectionsTest, FourAreServedInAPassInTheOrderOfTheQueue) {
  come(kMany);
  allSay(kTooLong);
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(pass(), "e9 e8 e7 e6 ") << "poll reports the newest first";
  EXPECT_EQ(pass(), "e5 e4 e3 e2 ");
  EXPECT_EQ(pass(), "e1 e0 ");
}

TEST_F(PendingConnectionsTest, WhoTalksOnStandsBehindTheOthers) {
  come(6);
  allSay(kFrame);
  (void)pass();
  for (const unsigned int i : {2U, 3U, 4U, 5U}) says(i, kFrame);
  EXPECT_EQ(pass(), "f5 f5 f4 f4 f3 f3 f2 f2 ");
  for (const unsigned int i : {2U, 3U, 4U, 5U}) says(i, kFrame);
  EXPECT_EQ(pass(), "f1 f0 ");
  EXPECT_EQ(pass(), "f5 f4 f3 f2 ");
}

TEST_F(PendingConnectionsTest, WhoHasEndedIsNotServed) {
  come(2);
  allSay(kHalf);
  (void)pass();
  ends(1);
  says(0, {0, 0, 'M', '2'});
  EXPECT_EQ(pass(), "f0 ");
}

}  // namespace
}  // namespace loader
