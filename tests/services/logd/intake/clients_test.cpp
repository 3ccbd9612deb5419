#include "services/logd/intake/clients.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <list>
#include <set>
#include <vector>

#include "kl/utilities.h"
#include "services/common/local_socket.h"
#include "tests/services/logd/system.h"
#include "tests/support/process/child_process.h"

namespace logd::test {
namespace {

// A loop that never waits and counts its passes' sockets.
class Loop : public kl::ThinRunner {
 public:
  int sleepTime(unsigned int) override { return 0; }
  void passes(int count) {
    for (int i = 0; i < count; ++i) {
      runTimers();
      runSocks(kl::getJiffies());
    }
  }
};

struct ClientsTest : testing::Test {
  ClientsTest() {
    EXPECT_EQ(listener.open(), "");
    limits.clients = 3;
  }

  std::string texts() const {
    std::string all;
    for (auto n = book.ring().begin(); n != book.ring().end(); ++n) all += book.ring()[n].text + "\n";
    return all;
  }

  Limits limits;
  Loop loop;
  LogBook book{BookRules()};
  Listener listener;
};

TEST_F(ClientsTest, TheyComeAndGo) {
  Clients clients(loop, book, listener, limits);
  std::list<LogClient> processes(2);
  loop.passes(5);
  EXPECT_EQ(clients.size(), 2u);
  EXPECT_TRUE(processes.back().write(registration(1, {5}) + textRecord(1, "a")));
  loop.passes(5);
  EXPECT_EQ(texts(), "a\n");
  processes.clear();
  loop.passes(5);
  EXPECT_EQ(clients.size(), 0u);
}

TEST_F(ClientsTest, WhoIsTooManyIsRefusedAndNobodyElseIsHurt) {
  Clients clients(loop, book, listener, limits);
  std::list<LogClient> processes(6);
  loop.passes(10);
  EXPECT_EQ(clients.size(), 3u);
  EXPECT_TRUE(texts().starts_with("refused: there are 3 clients, ")) << texts();
  EXPECT_EQ(book.ring().end(), 1u) << "one line for a run of them";
  EXPECT_TRUE(processes.back().isDisconnected());
  EXPECT_TRUE(processes.front().write(registration(1, {5}) + textRecord(1, "a")));
  loop.passes(1);
  EXPECT_EQ(book.ring()[1].text, "a");
  processes.pop_front();
  loop.passes(2);
  const LogClient next;
  loop.passes(2);
  EXPECT_EQ(clients.size(), 3u);
}

// Every descriptor that there is.
std::list<common::Descriptor> takeDescriptors() {
  std::list<common::Descriptor> all;
  while (true) {
    common::Descriptor one(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!one.isOpen()) return all;
    all.push_back(std::move(one));
  }
}

TEST_F(ClientsTest, WithoutDescriptorsWhoIsTooManyWaitsAndTheLoopRests) {
  limits.clients = 1;
  Clients clients(loop, book, listener, limits);
  const LogClient first;
  loop.passes(3);
  const LogClient second;
  std::list<common::Descriptor> all = takeDescriptors();
  loop.passes(100);
  EXPECT_EQ(texts(), "nobody can be taken: Too many open files\n") << "tried once, not in every pass";
  all.clear();
  clients.tick(steadyTime());
  loop.passes(3);
  EXPECT_TRUE(book.ring()[1].text.starts_with("refused: there are 1 clients, "));
}

TEST_F(ClientsTest, WithoutDescriptorsWhoComesWaitsAndTheLoopRests) {
  Clients clients(loop, book, listener, limits);
  LogClient process;
  EXPECT_TRUE(process.write(registration(1, {5}) + textRecord(1, "a")));
  std::list<common::Descriptor> all = takeDescriptors();
  loop.passes(100);
  EXPECT_EQ(texts(), "nobody can be taken: Too many open files\n") << "tried once, not in every pass";
  all.clear();
  clients.tick(steadyTime());
  loop.passes(3);
  EXPECT_EQ(book.ring()[1].text, "a");
}

TEST_F(ClientsTest, WhatWasWrittenIsTakenBeforeTheEndEvenOfThoseWhoWait) {
  Clients clients(loop, book, listener, limits);
  LogClient process;
  EXPECT_TRUE(process.write(registration(1, {5}) + textRecord(1, "a")));
  clients.drain();
  EXPECT_EQ(texts(), "a\n");
}

// A process of another user at the log socket, for as long as the test lives.
class Stranger {
 public:
  explicit Stranger(unsigned int connections, uid_t uid = 4711) : process_([&] { play(connections, uid); }) {
    EXPECT_TRUE(done_.hear<char>());
  }

 private:
  [[noreturn]] void play(unsigned int connections, uid_t uid) const {
    std::vector<common::Descriptor> all(connections);
    if (::setresuid(uid, uid, uid) != 0) ::_exit(1);
    for (common::Descriptor& one : all) {
      one = common::newStreamSocket();
      if (!common::connectTo(one.get(), kl::logSocketPath())) ::_exit(1);
    }
    done_.say('!');
    for (;;) ::pause();
  }

  kl::test::Pipe done_;
  kl::test::ChildProcess process_;
};

TEST_F(ClientsTest, AUserHasItsNumberOfClientsAndTheLastQuarterIsRootsAlone) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  limits.clients = 12;
  limits.clientsPerUser = 5;
  Clients clients(loop, book, listener, limits);
  {
    const Stranger many(30);
    loop.passes(40);
    EXPECT_EQ(clients.size(), 5u);
    EXPECT_EQ(texts(), "refused: there are 5 clients, 5 of its user\n") << "one line for a run of them";
    EXPECT_EQ(book.ring()[0].origin->uid, 4711u);
    const std::list<LogClient> ours(7);
    loop.passes(10);
    EXPECT_EQ(clients.size(), 12u);
  }
  loop.passes(10);
  EXPECT_EQ(clients.size(), 0u);
  limits.clientsPerUser = 100;
  const Stranger many(30);
  loop.passes(40);
  EXPECT_EQ(clients.size(), 9u);
}

// Connections of root that have written a line, the first one last.
void writeInTurn(std::list<LogClient>& processes, Loop& loop) {
  for (auto process = processes.rbegin(); process != processes.rend(); ++process) {
    EXPECT_TRUE(process->write(registration(1, {5})));
    loop.passes(2);
  }
}

TEST_F(ClientsTest, TheLongestSilentMakesRoomWhenThereIsNone) {
  limits.idleSeconds = 0;
  Clients clients(loop, book, listener, limits);
  std::list<LogClient> processes(3);
  loop.passes(5);
  writeInTurn(processes, loop);
  EXPECT_EQ(clients.size(), 3u);
  EXPECT_EQ(texts(), "") << "nobody is closed while there is room";
  LogClient next;
  EXPECT_TRUE(next.write(registration(1, {5}) + textRecord(1, "next")));
  loop.passes(5);
  EXPECT_EQ(clients.size(), 3u);
  EXPECT_TRUE(processes.back().isDisconnected());
  processes.pop_back();
  for (LogClient& process : processes) EXPECT_TRUE(process.write(textRecord(1, "still here")));
  loop.passes(5);
  EXPECT_EQ(texts(),
            "closed: it was silent for 0 seconds, and another client came\nnext\nstill here\nstill here\n");
}

TEST_F(ClientsTest, WhoWasNotSilentForLongEnoughStays) {
  limits.idleSeconds = 600;
  Clients clients(loop, book, listener, limits);
  std::list<LogClient> processes(3);
  loop.passes(5);
  LogClient next;
  loop.passes(5);
  EXPECT_TRUE(next.isDisconnected());
  EXPECT_TRUE(texts().starts_with("refused: ")) << texts();
}

TEST_F(ClientsTest, WhatAClosedClientHasWrittenIsTaken) {
  limits.idleSeconds = 0;
  limits.clients = 1;
  Clients clients(loop, book, listener, limits);
  LogClient process;
  loop.passes(2);
  EXPECT_TRUE(process.write(registration(1, {5}) + textRecord(1, "late")));
  const LogClient next;
  loop.passes(5);
  EXPECT_NE(texts().find("late\n"), std::string::npos) << texts();
}

TEST_F(ClientsTest, NobodyTakesThePlaceOfRootOrOfWhoHasFewerClients) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  limits.idleSeconds = 0;
  limits.clients = 12;
  limits.clientsPerUser = 9;
  Clients clients(loop, book, listener, limits);
  std::list<LogClient> roots(2);
  loop.passes(5);
  const Stranger few(1, 4712);
  loop.passes(5);
  const Stranger many(30, 4711);
  loop.passes(60);
  EXPECT_EQ(clients.size(), 9u);
  const Stranger another(1, 4713);
  loop.passes(10);
  EXPECT_EQ(clients.size(), 9u);
  std::set<unsigned int> closed;
  bool isAnotherRefused = false;
  for (const auto& [n, kept] : book.ring().since(0)) {
    if (kept.line.text.starts_with("closed: ")) closed.insert(kept.line.origin->uid);
    if (kept.line.text.starts_with("refused: ") && kept.line.origin->uid == 4713) isAnotherRefused = true;
  }
  EXPECT_EQ(closed, std::set<unsigned int>{4711}) << "its own, and one for who has none";
  EXPECT_FALSE(isAnotherRefused);
  for (LogClient& root : roots) EXPECT_TRUE(root.write(registration(1, {5}) + textRecord(1, "root's")));
  loop.passes(5);
  EXPECT_TRUE(texts().ends_with("root's\nroot's\n"));
}

TEST_F(ClientsTest, HoweverManyEndWithoutADescriptorLeftOneLineASecondSaysSo) {
  limits.clients = 100;
  Clients clients(loop, book, listener, limits);
  std::list<LogClient> those(10);
  loop.passes(20);
  const std::list<LogClient> waiting(50);
  std::list<common::Descriptor> all = takeDescriptors();
  while (!those.empty()) {
    those.pop_front();
    loop.passes(10);
  }
  EXPECT_EQ(texts(), "nobody can be taken: Too many open files\n");
}

TEST_F(ClientsTest, RulesReachEveryone) {
  Clients clients(loop, book, listener, limits);
  std::list<LogClient> processes(3);
  for (LogClient& process : processes) EXPECT_TRUE(process.write(registration(1, {8})));
  loop.passes(10);
  (void)book.mutes().set(8, true);
  clients.applyMutes();
  for (LogClient& process : processes) EXPECT_EQ(process.read(6), (Bytes{0, 6, 0, 1, 0, 1}));
}

}  // namespace
}  // namespace logd::test
