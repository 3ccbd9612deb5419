#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "kl/runner.h"
#include "tests/lib/loop/probe.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/journal.h"

namespace kl {
namespace {

class Sockets : public ::testing::Test {
 protected:
  static void onSocket(void* data, int fd, unsigned int revents) {
    auto* test = static_cast<Sockets*>(data);
    test->journal.note(std::to_string(fd) + ":" + std::to_string(revents));
    if (test->actions.count(fd) != 0) test->actions[fd]();
  }

  void watch(int fd, unsigned int events = POLLIN) { loop.addSocket(fd, this, onSocket, events); }

  // One pass in which poll reports `ready` and answers with their number.
  std::string pass(const std::map<int, short>& ready) { return pass(ready, static_cast<int>(ready.size())); }

  std::string pass(const std::map<int, short>& ready, int answer) {
    journal.clear();
    seen.clear();
    test::ScriptedPoll poll([&](const std::vector<pollfd*>& entries) {
      for (pollfd* entry : entries) {
        seen[entry->fd] = entry->events;
        const auto it = ready.find(entry->fd);
        entry->revents = it == ready.end() ? short{0} : it->second;
      }
      return answer;
    });
    loop.runSocks(0);
    timeout = poll.timeouts().at(0);
    ThinRunnerProbe::checkSockets(loop);
    return journal.text();
  }

  test::Journal journal;
  std::map<int, std::function<void()>> actions;
  std::map<int, short> seen;  // the requested events of the last poll
  int timeout = 0;
  ThinRunner loop;
};

TEST_F(Sockets, AreCalledFromTheLastEntryToTheFirst) {
  for (int fd : {10, 11, 12}) watch(fd);
  EXPECT_EQ(pass({{10, POLLIN}, {11, POLLIN}, {12, POLLIN}}), "12:1 11:1 10:1");
}

TEST_F(Sockets, AreCalledWithTheReturnedEvents) {
  watch(10, POLLIN | POLLOUT);
  EXPECT_EQ(pass({{10, POLLIN | POLLHUP}}), "10:17");
  EXPECT_EQ(pass({{10, static_cast<short>(0x8001)}}), "10:32769");
}

TEST_F(Sockets, TheWalkEndsWithTheNumberThatPollAnnounced) {
  for (int fd : {10, 11, 12}) watch(fd);
  EXPECT_EQ(pass({{10, POLLIN}, {11, POLLIN}, {12, POLLIN}}, 2), "12:1 11:1");
}

TEST_F(Sockets, APollThatFailsReportsNothing) {
  watch(10);
  EXPECT_EQ(pass({}, -1), "");
}

TEST_F(Sockets, ADuplicateIsIgnoredWithALine) {
  watch(10);
  ::testing::internal::CaptureStdout();
  loop.addSocket(
      10, nullptr, [](void*, int, unsigned int) { ADD_FAILURE(); }, POLLOUT);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "WARNING: could not add socket fd=10 becouse of dup\n");
  EXPECT_EQ(pass({{10, POLLIN}}), "10:1");
  EXPECT_EQ(seen[10], POLLIN);
}

TEST_F(Sockets, ChangeReplacesTheRequestedEvents) {
  watch(10);
  EXPECT_TRUE(loop.changeSocket(10, 0xFFFF0000u | POLLOUT));
  pass({});
  EXPECT_EQ(seen[10], POLLOUT);
}

TEST_F(Sockets, AChangeInsideTheWalkLeavesTheReturnedEventsAlone) {
  watch(10);
  watch(11);
  actions[11] = [this] { loop.changeSocket(10, 0); };
  EXPECT_EQ(pass({{10, POLLIN}, {11, POLLIN}}), "11:1 10:1");
}

TEST_F(Sockets, UnknownDescriptorsAreRefused) {
  EXPECT_FALSE(loop.changeSocket(10, POLLIN));
  EXPECT_FALSE(loop.removeSocket(10));
  EXPECT_FALSE(loop.setReadAhead(10, true));
}

TEST_F(Sockets, ARemovedEntryIsReplacedByTheLast) {
  for (int fd : {10, 11, 12, 13}) watch(fd);
  EXPECT_TRUE(loop.removeSocket(11));
  EXPECT_EQ(ThinRunnerProbe::pollOrder(loop), (std::vector<int>{10, 13, 12}));
  EXPECT_TRUE(loop.removeSocket(12));
  EXPECT_EQ(ThinRunnerProbe::pollOrder(loop), (std::vector<int>{10, 13}));
  EXPECT_FALSE(loop.removeSocket(12));
  EXPECT_EQ(pass({{13, POLLIN}, {10, POLLIN}}), "13:1 10:1");
}

TEST_F(Sockets, ACallbackMayRemoveEverySocket) {
  for (int fd : {10, 11, 12}) watch(fd);
  actions[12] = [this] {
    for (int fd : {10, 11, 12}) EXPECT_TRUE(loop.removeSocket(fd));
  };
  EXPECT_EQ(pass({{10, POLLIN}, {11, POLLIN}, {12, POLLIN}}), "12:1");
}

TEST_F(Sockets, ACallbackMayShutTheLoopDown) {
  for (int fd : {10, 11, 12}) watch(fd);
  actions[11] = [this] { loop.shutdown(); };
  EXPECT_EQ(pass({{10, POLLIN}, {11, POLLIN}, {12, POLLIN}}), "12:1 11:1");
}

TEST_F(Sockets, AnEntryMovedDownByARemovalIsNotCalledTwice) {
  for (int fd : {10, 11, 12, 13}) watch(fd);
  actions[12] = [this] { loop.removeSocket(10); };  // 13, already called, takes its place
  EXPECT_EQ(pass({{10, POLLIN}, {11, POLLIN}, {12, POLLIN}, {13, POLLIN}}), "13:1 12:1 11:1");
}

TEST_F(Sockets, ARemovalOfSeveralLetsTheWalkGoOnAtTheNewEnd) {
  for (int fd : {10, 11, 12, 13, 14}) watch(fd);
  actions[14] = [this] {
    for (int fd : {14, 13, 12}) loop.removeSocket(fd);
  };
  EXPECT_EQ(pass({{10, POLLIN}, {11, POLLIN}, {14, POLLIN}}), "14:1 11:1 10:1");
}

TEST_F(Sockets, ASocketAddedByACallbackWaitsForTheNextPass) {
  watch(10);
  actions[10] = [this] {
    if (ThinRunnerProbe::pollOrder(loop).size() == 1) watch(11);
  };
  EXPECT_EQ(pass({{10, POLLIN}}, 2), "10:1");
  EXPECT_EQ(pass({{10, POLLIN}, {11, POLLIN}}), "11:1 10:1");
}

TEST_F(Sockets, ASocketRemovedAndAddedAgainInItsCallbackIsCalledOnce) {
  watch(10);
  actions[10] = [this] {
    loop.removeSocket(10);
    watch(10);
  };
  EXPECT_EQ(pass({{10, POLLIN}}, 2), "10:1");
}

TEST_F(Sockets, ATimerMayRemoveASocketThatIsReady) {
  test::ScriptedClock clock(1000);
  watch(10);
  watch(11);
  loop.addTimer(
      &loop, [](void* data) { static_cast<ThinRunner*>(data)->removeSocket(10); }, 0);
  EXPECT_EQ(pass({{10, POLLIN}, {11, POLLIN}}), "11:1");
}

TEST_F(Sockets, ARealPipeReportsItsBytes) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  watch(ends[0]);
  ASSERT_EQ(::write(ends[1], "x", 1), 1);
  loop.runSocks(0);
  EXPECT_EQ(journal.text(), std::to_string(ends[0]) + ":1");
  ::close(ends[1]);
  char byte = 0;
  ASSERT_EQ(::read(ends[0], &byte, 1), 1);
  journal.clear();
  loop.runSocks(0);
  EXPECT_EQ(journal.text(), std::to_string(ends[0]) + ":16");
  ::close(ends[0]);
}

TEST_F(Sockets, WhileAReaderHoldsBytesThePollDoesNotWait) {
  watch(10);
  EXPECT_TRUE(loop.setReadAhead(10, true));
  EXPECT_EQ(pass({}), "10:1");
  EXPECT_EQ(timeout, 0);
  EXPECT_TRUE(loop.setReadAhead(10, false));
  EXPECT_EQ(pass({}), "");
  EXPECT_EQ(timeout, -1);
}

TEST_F(Sockets, AReaderThatHoldsBytesIsCalledInItsPlace) {
  for (int fd : {10, 11, 12}) watch(fd);
  loop.setReadAhead(11, true);
  EXPECT_EQ(pass({{10, POLLIN}, {12, POLLIN}}), "12:1 11:1 10:1");
}

TEST_F(Sockets, ReadAheadAndTheKernelsEventsAreOneCall) {
  watch(10, POLLIN | POLLOUT);
  watch(11);
  loop.setReadAhead(10, true);
  EXPECT_EQ(pass({{10, POLLOUT}}), "10:5");
  EXPECT_EQ(pass({{10, POLLIN}, {11, POLLIN}}), "11:1 10:1");
}

TEST_F(Sockets, AReaderIsCalledAlthoughThePollFailed) {
  watch(10);
  loop.setReadAhead(10, true);
  EXPECT_EQ(pass({}, -1), "10:1");
}

TEST_F(Sockets, BytesReadAheadDoNotCountWithoutPollin) {
  watch(10, POLLOUT);
  loop.setReadAhead(10, true);
  EXPECT_EQ(pass({}), "");
  EXPECT_EQ(timeout, -1);
  loop.changeSocket(10, POLLIN);
  EXPECT_EQ(pass({}), "10:1");
  EXPECT_EQ(timeout, 0);
}

TEST_F(Sockets, ReadAheadIsForgottenWithTheSocket) {
  watch(10);
  loop.setReadAhead(10, true);
  loop.setReadAhead(10, true);
  loop.removeSocket(10);
  watch(10);
  EXPECT_EQ(pass({}), "");
  EXPECT_EQ(timeout, -1);
  loop.setReadAhead(10, true);
  loop.shutdown();
  watch(10);
  EXPECT_EQ(pass({}), "");
}

TEST_F(Sockets, RandomStepsKeepTheContainersInStep) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::map<int, short> watched;
  for (int step = 0; step < 5000; ++step) {
    const int fd = static_cast<int>(random() % 30) + 100;
    const bool known = watched.count(fd) != 0;
    switch (random() % 4) {
      case 0:
        if (!known) watch(fd);
        watched.try_emplace(fd, POLLIN);
        break;
      case 1:
        EXPECT_EQ(loop.removeSocket(fd), known);
        watched.erase(fd);
        break;
      case 2:
        EXPECT_EQ(loop.changeSocket(fd, POLLOUT), known);
        if (known) watched[fd] = POLLOUT;
        break;
      default: EXPECT_EQ(loop.setReadAhead(fd, random() % 2 == 0), known); break;
    }
    pass({});
    ASSERT_EQ(seen, watched);
  }
}

}  // namespace
}  // namespace kl
