#include "services/logd/intake/client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kl/services.h"
#include "tests/services/logd/fixture.h"
#include "tests/support/hex.h"

namespace logd::test {
namespace {

// A loop that never waits.
class Loop : public kl::ThinRunner {
 public:
  int sleepTime(unsigned int) override { return 0; }
  void pass() {
    runTimers();
    runSocks(kl::getJiffies());
  }
};

// A client whose process is the test.
struct ClientTest : testing::Test {
  ClientTest() { connect(Limits{.linesPerSecond = 0, .bytesPerSecond = 0}); }

  void connect(const Limits& limits, bool isLoader = false) {
    auto user = std::make_shared<UserAccount>();
    account = std::make_shared<ProcessAccount>(limits, user, Origin{"netif", 812, 0, {}, 1000});
    reconnect(isLoader);
  }

  // Another connection of the same process.
  void reconnect(bool isLoader = false) {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    process = common::Descriptor(ends[1]);
    hasEnded = false;
    client =
        std::make_unique<Client>(loop, book, tally, common::Descriptor(ends[0]),
                                 Standing{{"netif", 812, 0, {}, 1000}, account, isLoader}, [this](Client&) {
                                   hasEnded = true;
                                   client.reset();
                                 });
  }

  void write(const Bytes& bytes) {
    ASSERT_EQ(::write(process.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    loop.pass();
  }

  // The bytes that the process reads with one read of 256 bytes, as it does.
  Bytes readOnce() {
    Bytes bytes(256);
    const ssize_t n = ::recv(process.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return bytes;
  }

  // All mute records that come until `count` are there, and how many at most came with one read.
  std::size_t readRecords(std::size_t count, std::size_t& mostAtOnce) {
    std::size_t records = 0;
    for (int i = 0; i < 100000 && records < count; ++i) {
      loop.pass();
      const Bytes bytes = readOnce();
      EXPECT_EQ(bytes.size() % 6, 0u) << "a record came in two parts";
      mostAtOnce = std::max(mostAtOnce, bytes.size() / 6);
      records += bytes.size() / 6;
      if (bytes.empty()) ::poll(nullptr, 0, 1);
    }
    return records;
  }

  void mute(Topic topic, bool muted) {
    (void)book.mutes().set(topic, muted);
    client->applyMutes();
  }

  std::string text(Ring::Number n) const { return book.ring()[n].text; }

  Loop loop;
  LogBook book{BookRules()};
  Tally tally;
  common::Descriptor process;
  std::shared_ptr<ProcessAccount> account;
  std::unique_ptr<Client> client;
  bool hasEnded = false;
};

TEST_F(ClientTest, ALineHasTheTopicsOfItsSourceAndTheNameOfItsProcess) {
  write(registration(2, {5, 7}) + textRecord(2, "abc"));
  ASSERT_EQ(book.ring().end(), 1u);
  const Line& line = book.ring()[0];
  EXPECT_EQ(line.text, "abc");
  EXPECT_EQ(line.origin->process, "netif");
  EXPECT_EQ(line.origin->pid, 812u);
  EXPECT_EQ(line.origin->uid, 1000u);
  EXPECT_EQ(line.origin->source, 2u);
  EXPECT_EQ(line.origin->topics, (Topics{5, 7}));
  EXPECT_EQ(tally.lines, 1u);
}

TEST_F(ClientTest, ASourceMayRegisterAgain) {
  write(registration(1, {5}) + textRecord(1, "a") + registration(1, {6}) + textRecord(1, "b"));
  EXPECT_EQ(book.ring()[0].origin->topics, (Topics{5}));
  EXPECT_EQ(book.ring()[1].origin->topics, (Topics{6}));
}

TEST_F(ClientTest, WhatIsNoRecordEndsItWithOneLine) {
  write(registration(1, {5}) + textRecord(1, "a") + Bytes(4));
  EXPECT_TRUE(hasEnded);
  ASSERT_EQ(book.ring().end(), 2u);
  EXPECT_EQ(text(1), "disconnected: it wrote a record with a bad length");
  EXPECT_EQ(book.ring()[1].origin->process, "netif");
  EXPECT_EQ(tally.torn, 0u);
}

TEST_F(ClientTest, ALineOfAnUnregisteredSourceEndsIt) {
  write(registration(1, {5}) + textRecord(2, "a") + textRecord(1, "b"));
  EXPECT_TRUE(hasEnded);
  ASSERT_EQ(book.ring().end(), 1u);
  EXPECT_EQ(text(0), "disconnected: it wrote a line of a source that was not registered");
}

TEST_F(ClientTest, TooManySourcesEndIt) {
  Bytes all;
  for (unsigned int id = 1; id <= Client::kMostSources; ++id) all = all + registration(id, {});
  write(all);
  EXPECT_FALSE(hasEnded);
  write(registration(1, {5}));
  EXPECT_FALSE(hasEnded);
  write(registration(Client::kMostSources + 1, {}));
  EXPECT_TRUE(hasEnded);
}

TEST_F(ClientTest, TheClientsOfAUserHaveSoManySourcesTogether) {
  account->user().sources = UserAccount::kMostSources - 1;
  write(registration(1, {5}) + registration(1, {6}));
  EXPECT_FALSE(hasEnded) << "the same one again";
  write(registration(2, {5}));
  EXPECT_TRUE(hasEnded);
  EXPECT_EQ(text(0), "disconnected: it wrote a registration of too many sources");
  EXPECT_EQ(account->user().sources, UserAccount::kMostSources - 1) << "what a client had is free again";
  account->user().isTrusted = true;
  account->user().sources = UserAccount::kMostSources;
  reconnect();
  write(registration(1, {5}));
  EXPECT_FALSE(hasEnded) << "the system's have no such limit";
}

TEST_F(ClientTest, ARecordThatDiesWithItsProcessIsCounted) {
  write(registration(1, {5}) + Bytes{0, 9, 0, 1, 'h', 'a'});
  process.close();
  loop.pass();
  EXPECT_TRUE(hasEnded);
  EXPECT_EQ(tally.torn, 1u);
  EXPECT_EQ(book.ring().end(), 0u);
}

TEST_F(ClientTest, AMutedSourceIsToldAtOnce) {
  write(registration(1, {5}) + registration(2, {8, 5}));
  mute(8, true);
  EXPECT_EQ(readOnce(), kl::test::bytes("0006 0002 0001"));
  std::size_t mostAtOnce = 0;
  mute(8, false);
  EXPECT_EQ(readRecords(1, mostAtOnce), 1u);
  mute(8, false);
  EXPECT_TRUE(readOnce().empty());
}

TEST_F(ClientTest, ANewcomerIsToldWithItsRegistration) {
  mute(8, true);
  write(registration(1, {8}));
  EXPECT_EQ(readOnce(), kl::test::bytes("0006 0001 0001"));
}

TEST_F(ClientTest, NoMoreRecordsAreUnderWayThanOneReadTakes) {
  Bytes all;
  for (unsigned int id = 1; id <= 300; ++id) all = all + registration(id, {8});
  write(all);
  mute(8, true);
  std::size_t mostAtOnce = 0;
  EXPECT_EQ(readRecords(300, mostAtOnce), 300u);
  EXPECT_EQ(mostAtOnce, 42u);
}

TEST_F(ClientTest, AProcessThatDoesNotReadIsNotWaitedFor) {
  write(registration(1, {8}));
  for (int i = 0; i < 100001; ++i) mute(8, i % 2 == 0);
  write(textRecord(1, "still here"));
  EXPECT_EQ(text(book.ring().end() - 1), "still here");
  std::size_t mostAtOnce = 0;
  (void)readRecords(1, mostAtOnce);
  EXPECT_LE(mostAtOnce, 42u);
}

TEST_F(ClientTest, WhoWritesTooFastIsTold) {
  connect(Limits{.linesPerSecond = 10, .burst = 3});
  Bytes all = registration(1, {5});
  for (int i = 0; i < 10; ++i) all = all + textRecord(1, std::to_string(i));
  write(all);
  EXPECT_EQ(book.ring().end(), 3u);
  EXPECT_EQ(tally.dropped, 7u);
  write(textRecord(1, "again"));
  EXPECT_EQ(book.ring().end(), 3u) << "not yet";
  account->reportDrops(book, steadyTime() + 1'000'000'000);
  ASSERT_EQ(book.ring().end(), 4u);
  EXPECT_EQ(text(3), "8 lines dropped: they came too fast");
  EXPECT_EQ(book.ring()[3].origin->process, "netif");
  EXPECT_EQ(book.ring()[3].origin->topics, (Topics{kl::TOPIC_WARNING, kl::TOPIC_LOGD}));
}

TEST_F(ClientTest, WhatWasDroppedIsToldAtTheEnd) {
  connect(Limits{.linesPerSecond = 1, .burst = 1});
  write(registration(1, {5}) + textRecord(1, "a") + textRecord(1, "b"));
  process.close();
  loop.pass();
  ASSERT_EQ(book.ring().end(), 2u);
  EXPECT_EQ(text(1), "1 lines dropped: they came too fast");
}

TEST_F(ClientTest, BytesAreLimitedAsLinesAre) {
  connect(Limits{.linesPerSecond = 0, .bytesPerSecond = 10000, .bytesBurst = 1000});
  write(registration(1, {5}) + textRecord(1, std::string(900, 'x')) + textRecord(1, std::string(900, 'y')) +
        textRecord(1, "short"));
  EXPECT_EQ(tally.lines, 1u) << "the second one does not fit, and what is empty stays so for a while";
  EXPECT_EQ(tally.dropped, 2u);
}

TEST_F(ClientTest, ConnectingAgainBuysAProcessNothing) {
  connect(Limits{.linesPerSecond = 1, .burst = 10});
  for (int i = 0; i < 50; ++i) {
    write(registration(1, {5}) + textRecord(1, "a"));
    process.close();
    loop.pass();
    reconnect();
  }
  EXPECT_LE(tally.lines, 11u);
  EXPECT_GE(tally.dropped, 39u);
}

TEST_F(ClientTest, RemarksAboutAUserAreFewWhateverItDoes) {
  for (int i = 0; i < 500; ++i) {
    write(Bytes(4));
    EXPECT_TRUE(hasEnded);
    reconnect();
  }
  EXPECT_LE(book.ring().end(), UserAccount::kMostRemarksAtOnce + 2u);
  EXPECT_EQ(text(0), "disconnected: it wrote a record with a bad length");
}

TEST_F(ClientTest, TheLoadersTopicsAreItsAlone) {
  write(registration(1, {kl::TOPIC_LOADER, kl::TOPIC_OUTPUT, 5, kl::TOPIC_ERRORS, kl::TOPIC_LOGD}) +
        textRecord(1, "a"));
  ASSERT_EQ(book.ring().end(), 2u);
  EXPECT_EQ(text(0), "a");
  EXPECT_EQ(book.ring()[0].origin->topics, (Topics{5}));
  EXPECT_EQ(text(1), "registered a topic that is not its own: its lines go without");
  connect(Limits(), true);
  write(registration(1, {kl::TOPIC_LOADER}) + textRecord(1, "b"));
  EXPECT_EQ(book.ring()[2].origin->topics, (Topics{kl::TOPIC_LOADER}));
  EXPECT_EQ(book.ring().end(), 3u);
}

TEST_F(ClientTest, WhatIsInTheSocketIsTakenBeforeTheEnd) {
  const Bytes all = registration(1, {5}) + textRecord(1, "a");
  ASSERT_EQ(::write(process.get(), all.data(), all.size()), static_cast<ssize_t>(all.size()));
  client->drain();
  EXPECT_EQ(book.ring().end(), 1u);
}

TEST(ClientPeer, TheKernelSaysWhoItIs) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const common::Descriptor a(ends[0]);
  const common::Descriptor b(ends[1]);
  const Origin origin = originAt(a.get());
  EXPECT_EQ(origin.pid, static_cast<unsigned int>(::getpid()));
  EXPECT_EQ(origin.uid, ::geteuid());
  EXPECT_EQ(origin.process + "\n", contentOf("/proc/self/comm"));
}

}  // namespace
}  // namespace logd::test
