// Few sockets and many, beside a loop that polls all of them: the order of callbacks is the same, the work of a pass
// is not.

#include "services/loader/transport/sockets.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"

namespace loader {
namespace {

using kl::test::ScriptedPoll;

// Sockets with names, in a loop of their own; a callback reads one byte and does what it is told.
class World {
 public:
  explicit World(bool isPolled) {
    if (!isPolled) sockets_.emplace(runner_);
  }
  ~World() {
    while (!watched_.empty()) remove(watched_.begin()->first);
  }

  void add(unsigned int name) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    auto& one = watched_[name] =
        std::make_unique<One>(One{*this, name, Descriptor(ends[0]), Descriptor(ends[1])});
    if (sockets_) sockets_->add(ends[0], one.get(), &World::onReady, POLLIN);
    else runner_.addSocket(ends[0], one.get(), &World::onReady, POLLIN);
  }
  void remove(unsigned int name) {
    const int fd = fdOf(name);
    if (sockets_) sockets_->remove(fd);
    else runner_.removeSocket(fd);
    watched_.erase(name);
  }
  void setReadAhead(unsigned int name, bool holdsBytes) {
    if (sockets_) sockets_->setReadAhead(fdOf(name), holdsBytes);
    else runner_.setReadAhead(fdOf(name), holdsBytes);
  }
  void change(unsigned int name, unsigned int events) {
    if (sockets_) sockets_->change(fdOf(name), events);
    else runner_.changeSocket(fdOf(name), events);
  }
  void say(unsigned int name) { ASSERT_EQ(::write(watched_.at(name)->other.get(), "x", 1), 1); }

  // The callback of `name` does this when it comes next.
  void tell(unsigned int name, std::function<void(World&)> action) { told_[name] = std::move(action); }

  // One pass that does not sleep: the names of who was called.
  std::vector<unsigned int> pass() {
    heard_.clear();
    runner_.addTimer(
        nullptr, [](void*) {}, 0);
    runner_.runSocks(kl::getJiffies());
    return heard_;
  }

  int fdOf(unsigned int name) const { return watched_.at(name)->own.get(); }
  bool has(unsigned int name) const { return watched_.contains(name); }
  std::size_t size() const { return watched_.size(); }
  bool areTogether() const { return sockets_->areTogether(); }

  kl::ThinRunner& runner() { return runner_; }

 private:
  struct One {
    World& world;
    unsigned int name;
    Descriptor own;
    Descriptor other;
  };

  static void onReady(void* data, int fd, unsigned int /*events*/) {
    const One& one = *static_cast<One*>(data);
    World& world = one.world;
    char byte = 0;
    (void)!::read(fd, &byte, 1);
    world.heard_.push_back(one.name);
    const auto action = world.told_.extract(one.name);
    if (!action.empty()) action.mapped()(world);
  }

  kl::ThinRunner runner_;
  std::optional<Sockets> sockets_;
  std::map<unsigned int, std::unique_ptr<One>> watched_;
  std::map<unsigned int, std::function<void(World&)>> told_;
  std::vector<unsigned int> heard_;
};

// The descriptors and events that poll is asked for in each pass.
class SocketsTest : public testing::Test {
 protected:
  void addMany(unsigned int count) {
    for (unsigned int i = 0; i < count; ++i) world_.add(next_++);
  }
  // The descriptors that poll looks at in a pass.
  std::size_t lookedAt() {
    std::size_t count = 0;
    const ScriptedPoll poll([&](const std::vector<pollfd*>& entries) {
      count = entries.size();
      return 0;
    });
    (void)world_.pass();
    return count;
  }

  World world_{false};
  unsigned int next_ = 0;
};

TEST_F(SocketsTest, FewAreWatchedOneByOne) {
  addMany(Sockets::kMany - 1);
  EXPECT_FALSE(world_.areTogether());
  EXPECT_EQ(lookedAt(), Sockets::kMany - 1);
}

TEST_F(SocketsTest, OfManyAPassLooksAtOneDescriptorHoweverManyTheyAre) {
  addMany(Sockets::kMany);
  EXPECT_EQ(lookedAt(), 1u);
  addMany(4 * Sockets::kMany);
  EXPECT_EQ(lookedAt(), 1u);
}

TEST_F(SocketsTest, ThoseThatStayAreWatchedOneByOneAgainAndBothTimesHeard) {
  addMany(Sockets::kMany);
  world_.say(5);
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{5});
  while (world_.size() >= Sockets::kFew) world_.remove(--next_);
  EXPECT_FALSE(world_.areTogether());
  EXPECT_EQ(lookedAt(), Sockets::kFew - 1);
  world_.say(5);
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{5});
}

TEST_F(SocketsTest, WhoHoldsBytesIsReadyInEachPassWhichDoesNotSleep) {
  addMany(Sockets::kMany);
  world_.setReadAhead(7, true);
  std::vector<int> timeouts;
  {
    const ScriptedPoll poll([](const std::vector<pollfd*>&) { return 0; });
    world_.runner().runSocks(0);
    timeouts = poll.timeouts();
  }
  EXPECT_EQ(timeouts, std::vector<int>{0});
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{7});
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{7});
  world_.setReadAhead(7, false);
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{});
}

// In both directions, whichever way they are watched when it is said.
TEST_F(SocketsTest, WhoHoldsBytesDoesSoInBothWays) {
  addMany(Sockets::kMany - 1);
  world_.setReadAhead(7, true);
  addMany(1);
  EXPECT_TRUE(world_.areTogether());
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{7});
  while (world_.size() >= Sockets::kFew) world_.remove(--next_);
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{7});
}

TEST_F(SocketsTest, ChangedEventsCountFromTheNextPass) {
  addMany(Sockets::kMany);
  world_.say(9);
  world_.change(9, 0);
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{});
  world_.change(9, POLLOUT);
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{9});
}

// Its number is a new socket's at once.
TEST_F(SocketsTest, ASocketThatIsRemovedInAPassIsNotCalledNorIsTheOneThatGetsItsNumber) {
  addMany(Sockets::kMany + 2);
  world_.say(10);
  world_.say(20);  // is called first
  world_.tell(20, [](World& world) {
    const int number = world.fdOf(10);
    world.remove(10);
    world.add(1000);
    EXPECT_EQ(world.fdOf(1000), number);
  });
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{20});
  EXPECT_EQ(world_.pass(), std::vector<unsigned int>{});
}

TEST_F(SocketsTest, WithoutADescriptorLeftPollWatchesAll) {
  addMany(Sockets::kMany - 1);
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const Descriptor one(ends[0]);
  const Descriptor other(ends[1]);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const Descriptor lowestFree(::dup(one.get()));
  rlimit none = before;
  none.rlim_cur = static_cast<rlim_t>(lowestFree.get()) + 1;
  std::vector<int> called;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  Sockets sockets(world_.runner());
  for (int fd = 1000; fd < 1000 + static_cast<int>(Sockets::kMany); ++fd)
    sockets.add(
        fd, &called,
        [](void* data, int number, unsigned int) { static_cast<std::vector<int>*>(data)->push_back(number); },
        POLLIN);
  EXPECT_FALSE(sockets.areTogether());
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(lookedAt(), Sockets::kMany - 1 + Sockets::kMany);
  for (int fd = 1000; fd < 1000 + static_cast<int>(Sockets::kMany); ++fd) sockets.remove(fd);
}

// Callbacks come in the same order whoever watches the sockets, also where they change which are watched.
TEST(SocketsOrder, IsThatOfPollWhateverCallbacksDo) {
  const unsigned int seed = std::random_device{}();
  std::mt19937 random(seed);
  const auto below = [&random](unsigned int n) { return static_cast<unsigned int>(random() % n); };
  World together(false);
  World polled(true);
  unsigned int next = 0;
  const auto both = [&](auto&& act) {
    act(together);
    act(polled);
  };
  const auto addOne = [&] { both([name = next++](World& world) { world.add(name); }); };
  while (next < Sockets::kMany + 40) addOne();
  const auto anyone = [&] {
    for (;;)
      if (const unsigned int name = below(next); polled.has(name)) return name;
  };
  for (unsigned int round = 0; round < 200; ++round) {
    for (unsigned int n = below(8); n > 0; --n) both([name = anyone()](World& world) { world.say(name); });
    const unsigned int actor = anyone();
    const unsigned int victim = below(3) == 0 ? actor : anyone();
    const unsigned int fresh = next++;
    both([&](World& world) {
      world.say(actor);
      world.tell(actor, [=](World& its) {
        its.remove(victim);
        its.add(fresh);
      });
    });
    for (unsigned int passes = 0; passes < 3; ++passes)
      ASSERT_EQ(together.pass(), polled.pass()) << "seed " << seed << ", round " << round;
    ASSERT_TRUE(together.areTogether());
    // who was removed before its turn did not do what it was told
    if (!polled.has(fresh)) both([=](World& world) { world.add(fresh); });
  }
}

TEST(LoaderSockets, AHundredConnectionsAreServedAndSoAreThoseThatStay) {
  const kl::test::LoaderProcess loader;
  std::vector<kl::test::RawPeer> peers;
  for (unsigned int id = 500; id < 600; ++id) peers.push_back(kl::test::RawPeer::registered(id));
  const auto ask = [&](unsigned int from, unsigned int to) {
    ASSERT_TRUE(peers[from].send(kl::test::request({500 + to, 1}, kl::CMD_GET, 9, {7})));
    const auto asked = peers[to].receiveCommand(kl::CMD_GET);
    ASSERT_TRUE(asked);
    ASSERT_TRUE(peers[to].send(kl::test::replyTo(*asked)));
    ASSERT_TRUE(peers[from].receiveReply(9));
  };
  for (unsigned int i = 0; i + 1 < 100; i += 9) ask(i, i + 1);
  peers.resize(10);
  for (unsigned int i = 0; i + 1 < 10; ++i) ask(i, i + 1);
}

}  // namespace
}  // namespace loader
