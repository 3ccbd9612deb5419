#include "services/loader/transport/turns.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "kl/records.h"
#include "kl/runner.h"
#include "services/loader/transport/connection.h"
#include "tests/support/page.h"

namespace loader {
namespace {

using Units = Work::Units;

// Connections on socket pairs, each of whose frames is a number and costs what the test says.
class TurnsTest : public testing::Test {
 protected:
  struct Heard {
    std::size_t who;
    unsigned int number;  // kEnd: its end
    friend bool operator==(const Heard&, const Heard&) = default;
  };
  static constexpr unsigned int kEnd = 0xffffffff;
  // Frames that cost kNext each, and a first turn has not enough for them.
  static constexpr unsigned int kMany = Turns::kFirst / Turns::kNext + 100;

  void come(unsigned int count) {
    for (unsigned int i = 0; i < count; ++i) {
      int ends[2];
      ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
      others_.emplace_back(ends[0]);
      clients_.push_back(std::make_unique<Client>(*this, clients_.size(), Descriptor(ends[1])));
    }
  }

  // Sends frames with the numbers from `first` on.
  void say(std::size_t who, unsigned int first, unsigned int count, unsigned int padding = 0) {
    std::vector<unsigned char> bytes;
    for (unsigned int number = first; number < first + count; ++number) {
      for (const unsigned int value : {4 + padding, number})
        for (unsigned int shift = 0; shift < 32; shift += 8)
          bytes.push_back(static_cast<unsigned char>(value >> shift));
      bytes.resize(bytes.size() + padding);
    }
    ASSERT_EQ(::send(others_[who].get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }

  // One pass of the loop.  It has a timer only when nothing waits: otherwise it must not sleep by itself.
  std::vector<Heard> pass() {
    heard_.clear();
    turns_.serve();
    if (turns_.waiting() == 0)
      runner_.addTimer(
          nullptr, [](void*) {}, 0);
    runner_.runSocks(kl::getJiffies());
    return heard_;
  }
  std::vector<Heard> passes(unsigned int count) {
    std::vector<Heard> all;
    for (unsigned int i = 0; i < count; ++i) {
      const std::vector<Heard> some = pass();
      all.insert(all.end(), some.begin(), some.end());
    }
    return all;
  }
  // The passes until nobody waits and nothing comes, at most so many.
  std::vector<Heard> allPasses(unsigned int most = 100000) {
    std::vector<Heard> all;
    for (unsigned int i = 0; i < most; ++i) {
      const std::vector<Heard> some = pass();
      all.insert(all.end(), some.begin(), some.end());
      if (some.empty() && turns_.waiting() == 0) break;
    }
    return all;
  }

  // The passes of a loop that nothing but a timer wakes.
  unsigned int passesInTicks(unsigned int ticks) {
    bool isOver = false;
    runner_.addTimer(
        &isOver, [](void* over) { *static_cast<bool*>(over) = true; }, ticks);
    unsigned int count = 0;
    while (!isOver) {
      turns_.serve();
      runner_.runSocks(kl::getJiffies());
      ++count;
    }
    return count;
  }

  static std::vector<Heard> of(const std::vector<Heard>& all, std::size_t who) {
    std::vector<Heard> its;
    for (const Heard& one : all)
      if (one.who == who) its.push_back(one);
    return its;
  }
  static std::vector<Heard> inOrder(std::size_t who, unsigned int count) {
    std::vector<Heard> its;
    for (unsigned int i = 0; i < count; ++i) its.push_back({who, i});
    return its;
  }
  Connection& connection(std::size_t who) { return clients_[who]->connection; }
  void closeOther(std::size_t who) { others_[who].close(); }

  Work work_;
  Turns turns_{work_};
  Units cost_ = 0;          // of each frame, beside what it costs anyway
  unsigned int parts_ = 1;  // in which each frame is handled

 private:
  class Client final : public ConnectionHost {
   public:
    Client(TurnsTest& test, std::size_t number, Descriptor socket)
        : connection(test.sockets_, *this, test.area_, test.turns_, std::move(socket),
                     Connection::Origin::kLaunched, Patience{1, 0}),
          test_(test),
          number_(number) {}

    void onBatch() override {}
    const char* onFrame(std::span<const unsigned char> body) override {
      do {
        test_.work_.spend(test_.cost_);
        part_ = (part_ + 1) % test_.parts_;
      } while (part_ != 0 && !test_.work_.isSpent());
      if (part_ == 0) test_.heard_.push_back({number_, kl::readLe32(body.data())});
      return nullptr;
    }
    bool isFrameUnfinished() const override { return part_ != 0; }
    void onPendingReadable() override {}
    void onConnectionClosed(const std::string&) override {
      test_.heard_.push_back({number_, kEnd});
      connection.close();
    }
    void writeQueues() override {}

    Connection connection;

   private:
    TurnsTest& test_;
    std::size_t number_;
    unsigned int part_ = 0;
  };

  kl::Runner runner_;
  Sockets sockets_{runner_};
  ReadArea area_;
  std::vector<Descriptor> others_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<Heard> heard_;
};

TEST_F(TurnsTest, PlainFramesOfAWholeReadNeedOneTurn) {
  come(1);
  cost_ = Work::kFrame + 7;  // of the delivery of 55 bytes
  say(0, 0, ReadArea::kBytes / 45, 45 - 8);
  EXPECT_EQ(pass(), inOrder(0, ReadArea::kBytes / 45));
  EXPECT_EQ(turns_.waiting(), 0u);
}

TEST_F(TurnsTest, WhoSaysLittleIsHeardBeforeTheRestOfWhoSaysMuch) {
  come(2);
  cost_ = Turns::kNext;
  say(0, 0, 1000);
  const std::size_t first = pass().size();
  EXPECT_LE(first, static_cast<std::size_t>(Turns::kFirst / Turns::kNext));
  say(1, 0, 1);
  const std::vector<Heard> heard = pass();
  EXPECT_EQ(heard.size(), 2u);
  EXPECT_EQ(of(heard, 1), inOrder(1, 1));
  EXPECT_EQ(first + 1 + allPasses().size(), 1000u);
}

TEST_F(TurnsTest, HoweverManySayMuchAPassOfTheirRestsCostsOneTurn) {
  constexpr unsigned int kSenders = 24;
  come(kSenders + 1);
  cost_ = Turns::kNext;
  for (unsigned int i = 0; i < kSenders; ++i) say(i, 0, kMany);
  const std::vector<Heard> first = pass();
  EXPECT_LE(first.size(),
            static_cast<std::size_t>((Turns::kAtOnce + Turns::kFirst) / Turns::kNext) + kSenders);
  say(kSenders, 0, 1);
  const std::vector<Heard> heard = pass();
  EXPECT_EQ(of(heard, kSenders), inOrder(kSenders, 1));
  EXPECT_LE(heard.size(), 2u);
}

TEST_F(TurnsTest, ThoseThatWaitTakeTurnsAndNoneStarves) {
  come(3);
  cost_ = Turns::kNext;
  for (std::size_t i = 0; i < 3; ++i) say(i, 0, kMany);
  (void)pass();
  const std::vector<Heard> heard = passes(30);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_GE(of(heard, i).size(), 8u) << i;
}

TEST_F(TurnsTest, TheOrderWithinAConnectionIsKept) {
  come(2);
  cost_ = Turns::kNext / 3;
  for (unsigned int i = 0; i < 10; ++i)
    for (std::size_t who = 0; who < 2; ++who) say(who, 100 * i, 100);
  const std::vector<Heard> heard = allPasses();
  for (std::size_t who = 0; who < 2; ++who) EXPECT_EQ(of(heard, who), inOrder(who, 1000));
}

TEST_F(TurnsTest, WhoClosesWhileItsRestWaitsIsHeardToTheEnd) {
  come(1);
  cost_ = Turns::kNext;
  say(0, 0, kMany);
  closeOther(0);
  std::vector<Heard> expected = inOrder(0, kMany);
  expected.push_back({0, kEnd});
  EXPECT_EQ(allPasses(), expected);
}

TEST_F(TurnsTest, WhoseProcessHasEndedIsHeardAtOnce) {
  come(1);
  cost_ = Turns::kNext;
  say(0, 0, kMany);
  std::vector<Heard> heard = pass();
  const std::size_t before = heard.size();
  EXPECT_LT(before, kMany);
  connection(0).drain();
  EXPECT_EQ(pass().size(), 0u) << "pass() forgets what the drain brought";
  EXPECT_EQ(turns_.ahead(), 0u);
}

TEST_F(TurnsTest, AFrameWithManyReceiversIsHandledInParts) {
  come(2);
  cost_ = Turns::kNext;
  parts_ = kMany;
  say(0, 0, 1);
  EXPECT_TRUE(pass().empty());
  EXPECT_EQ(turns_.waiting(), 1u);
  const std::vector<Heard> heard = allPasses(200);
  EXPECT_EQ(heard, inOrder(0, 1));
}

TEST_F(TurnsTest, WhatAFrameCostsBeyondItsTurnIsPaidBeforeTheNext) {
  come(2);
  cost_ = Turns::kFirst + 10 * Turns::kNext;
  say(0, 0, 2);
  EXPECT_EQ(pass(), inOrder(0, 1));
  EXPECT_TRUE(passes(10).empty());
  cost_ = 0;
  EXPECT_EQ(pass(), (std::vector<Heard>{{0, 1}}));
}

TEST_F(TurnsTest, WhatIsReadAheadIsBoundedForAllTogether) {
  constexpr unsigned int kSenders = 60;
  come(kSenders);
  cost_ = Turns::kNext;
  for (unsigned int i = 0; i < kSenders; ++i) say(i, 0, 500, 92);
  std::size_t most = 0;
  for (unsigned int i = 0; i < 200; ++i) {
    (void)pass();
    most = std::max(most, turns_.ahead());
  }
  EXPECT_GT(most, 0u);
  EXPECT_LE(most, Turns::kMostAhead + Turns::kLongRead + kSenders * Turns::kShortRead);
}

TEST_F(TurnsTest, WhenNobodyWaitsTheLoopSleepsAgain) {
  come(2);
  cost_ = Turns::kNext;
  say(0, 0, kMany);
  say(1, 0, kMany);
  EXPECT_EQ(allPasses().size(), 2 * kMany);
  EXPECT_LE(passesInTicks(5), 20u);
}

TEST_F(TurnsTest, WhoIsClosedWhileItWaitsHasNoTurn) {
  come(2);
  cost_ = Turns::kNext;
  say(0, 0, kMany);
  say(1, 0, kMany);
  (void)pass();
  ASSERT_EQ(turns_.waiting(), 2u);
  connection(0).close();
  EXPECT_EQ(turns_.waiting(), 1u);
  EXPECT_TRUE(of(allPasses(), 0).empty());
  EXPECT_EQ(turns_.ahead(), 0u);
}

TEST_F(TurnsTest, ThePageShowsTheShares) {
  using kl::test::withCommas;
  const std::string page = kl::test::pageOf("docs/security.md");
  const std::string next = withCommas(Turns::kNext);
  for (const std::string& size :
       {withCommas(Turns::kFirst) + " units of about 4 ns",
        withCommas(Turns::kAtOnce) + " units, then " + next + " each", next + " units, and one delivery more",
        withCommas(Turns::kMostAhead + Turns::kLongRead) + " bytes and " + withCommas(Turns::kShortRead) +
            " of each"})
    EXPECT_TRUE(kl::test::shows(page, "| " + size)) << size;
}

}  // namespace
}  // namespace loader
