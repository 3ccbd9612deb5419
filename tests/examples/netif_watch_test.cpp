// The messages that netif sends without being asked: changes to subscribers, and undo records.

#include <gtest/gtest.h>

#include "tests/examples/netif_service.h"
#include "tests/examples/own_network.h"
#include "tests/support/doubles/log_service.h"

namespace {

constexpr unsigned int kHandler = 7;

// netif in a network namespace of its own, and a process that has subscribed.
class WatchedNetif : public NetifService {
 protected:
  WatchedNetif()
      : NetifService("\"/usr/bin/unshare\", \"--map-root-user\", \"--net\", \"" KL_BIN_DIR "/netif\"") {}

  void SetUp() override {
    if (!network::isAllowed()) GTEST_SKIP() << "the kernel refuses a network namespace";
    ASSERT_FALSE(kl::isError(ask(kl::CMD_NOOP)));
    pid_ = pid();
    client_.subscribe({netif::SERVICE}, kl::CMD_NOTIFY, {});
    ASSERT_FALSE(kl::isError(ask(kl::CMD_NOOP)));
  }

  bool ip(const std::string& words) const { return network::ip(words, pid_); }

  // The next notified object of this name of which `isAwaited` holds; an empty one when none comes.
  template <class Predicate>
  kl::message await(const std::string& name, Predicate isAwaited) {
    for (;;) {
      const kl::message m = client_.getMessage(kPatienceTicks);
      if (kl::isError(m)) {
        ADD_FAILURE() << "no such notification of " << name;
        return {};
      }
      for (const kl::message object : m.get(kl::STD_OBJS, {}))
        if (object.get(netif::NAME, "") == name && isAwaited(object)) return object;
    }
  }

  pid_t pid_ = 0;
};

bool any(const kl::message&) { return true; }
bool isUp(const kl::message& object) { return object.get(netif::UP, false); }
bool isDown(const kl::message& object) { return !isUp(object); }
bool isDead(const kl::message& object) { return object.has(kl::STD_DEAD); }

bool hasAddresses(const kl::message& object) {
  return kernel::textOf(object.get(netif::ADDRESSES, {})).contains("fd00::5") &&
         kernel::textOf(object.get(netif::ADDRESSES4, {})).contains("::ffff:10.1.1.1");
}

// netif on this machine's interfaces, and a process that stands in for the undo service.
class UndoableNetif : public NetifService {
 protected:
  UndoableNetif() : NetifService("\"" KL_BIN_DIR "/netif\"", kl::SERVICE_UNDO) {}

  kl::message nextRecord() { return client_.getMessage(kPatienceTicks); }

  // Sends what a record says to undo it, as its continuation.
  kl::message undo(const kl::message& record, unsigned int number) {
    kl::message m(record.get(kUndo, {}));
    m.insert(kl::SYS_TO, record.get(kl::SYS_FROM, {}));
    m.insert(kl::STD_UNDOID, number);
    return ask(m.get(kl::SYS_CMD, 0), m);
  }

  std::string description() { return askFor(kl::CMD_GETOBJ, lo_).get(kl::STD_DESCR, ""); }

  static constexpr kl::field<kl::message::flat_message> kRequest{0x28000001};
  static constexpr kl::field<kl::message::flat_message> kUndo{0x28000002};
  static constexpr kl::field<std::string> kWhat{0x20000003};
  static constexpr kl::field<unsigned int> kRights{0x08000005};
};

}  // namespace

TEST_F(WatchedNetif, TellsOfAnInterfaceThatComesChangesAndGoes) {
  ASSERT_TRUE(network::addLink("made", pid_));
  const kl::message made = await("made", isDown);
  ASSERT_TRUE(ip("link set made up"));
  EXPECT_EQ(await("made", isUp).get(kl::STD_ID, 0), made.get(kl::STD_ID, 1));
  ASSERT_TRUE(ip("addr add fd00::5/64 dev made"));
  ASSERT_TRUE(ip("addr add 10.1.1.1/24 dev made"));
  EXPECT_TRUE(await("made", hasAddresses).has(netif::MTU));
  ASSERT_TRUE(ip("link set made mtu 1400"));
  await("made", [](const kl::message& object) { return object.get(netif::MTU, 0) == 1400; });
  ASSERT_TRUE(ip("link set made down"));
  await("made", isDown);
  ASSERT_TRUE(ip("link del made"));
  const kl::message dead = await("made", isDead);
  EXPECT_EQ(dead.get(kl::STD_ID, 0), made.get(kl::STD_ID, 1));
  EXPECT_FALSE(dead.has(netif::MTU));
}

TEST_F(WatchedNetif, CountsAndDescribesWhatHasJustCome) {
  const unsigned int before = ask(kl::CMD_GETCOUNT).get(kl::STD_GETALLNO, 0);
  ASSERT_TRUE(network::addLink("made", pid_));
  EXPECT_GT(ask(kl::CMD_GETCOUNT).get(kl::STD_GETALLNO, 0), before);
  const unsigned int id = await("made", any).get(kl::STD_ID, 0);
  EXPECT_FALSE(kl::isError(describe(id, "made here")));
  EXPECT_EQ(askFor(kl::CMD_GETOBJ, id).get(kl::STD_DESCR, ""), "made here");
}

TEST_F(WatchedNetif, AnInterfaceThatComesBackHasItsDescription) {
  ASSERT_TRUE(network::addLink("made", pid_));
  const unsigned int first = await("made", any).get(kl::STD_ID, 0);
  EXPECT_FALSE(kl::isError(describe(first, "made here")));
  ASSERT_TRUE(ip("link del made"));
  await("made", isDead);
  ASSERT_TRUE(network::addLink("made", pid_));
  const kl::message again = await("made", any);
  EXPECT_NE(again.get(kl::STD_ID, 0), first);
  EXPECT_EQ(again.get(kl::STD_DESCR, ""), "made here");
}

// Both subscriptions are this process's.  The batch goes to the first before it goes to the second.
TEST_F(WatchedNetif, OfADescriptionEverybodyIsToldButWhoGaveIt) {
  kl::Handler other;
  ASSERT_TRUE(client_.addHandler(kHandler, &other));
  other.subscribe({netif::SERVICE}, kl::CMD_NOTIFY, {});
  EXPECT_FALSE(kl::isError(describe(1, "to itself")));
  const kl::message notification = client_.getMessage(kPatienceTicks);
  EXPECT_EQ(notification.get(kl::SYS_TO, {}), std::vector<unsigned int>{kHandler});
  const kl::message lo(notification.get(kl::STD_OBJS, {}).at(0));
  EXPECT_EQ(lo.get(netif::NAME, ""), "lo");
  EXPECT_EQ(lo.get(kl::STD_DESCR, ""), "to itself");
}

TEST_F(WatchedNetif, LogsWhatComesChangesAndGoesAndWhoIsDescribed) {
  kl::test::LogService log;
  ASSERT_TRUE(network::addLink("made", pid_));
  EXPECT_TRUE(log.awaits("made is new: down, MTU 1500, addresses: 0"));
  ASSERT_TRUE(ip("link set made mtu 1400"));
  EXPECT_TRUE(log.awaits("made: down, MTU 1400, addresses: 0"));
  ASSERT_TRUE(ip("link del made"));
  EXPECT_TRUE(log.awaits("made is gone"));
  EXPECT_FALSE(kl::isError(describe(1, "to itself")));
  EXPECT_TRUE(log.awaits("description of lo given"));
  EXPECT_FALSE(kl::isError(describe(1, "")));
  EXPECT_TRUE(log.awaits("description of lo changed"));
}

TEST_F(UndoableNetif, ADescriptionIsReportedWithWhatTakesItBack) {
  EXPECT_FALSE(kl::isError(describe(lo_, "to itself")));
  const kl::message record = nextRecord();
  EXPECT_EQ(record.get(kl::SYS_CMD, 0), kl::CMD_ADDOBJ);
  EXPECT_EQ(record.get(kl::SYS_FROM, {}), std::vector<unsigned int>{netif::SERVICE});
  EXPECT_EQ(record.get(kWhat, ""), "description of lo");
  EXPECT_EQ(record.get(kRights, 0), 128u);
  const kl::message request(record.get(kRequest, {}));
  EXPECT_EQ(request.get(kl::STD_DESCR, ""), "to itself");
  const kl::message undo(record.get(kUndo, {}));
  EXPECT_EQ(undo.get(kl::SYS_CMD, 0), kl::CMD_SETOBJ);
  EXPECT_EQ(undo.get(kl::STD_ID, 0), lo_);
  EXPECT_TRUE(undo.has(kl::STD_DESCR));  // empty: there was none
  EXPECT_EQ(undo.get(kl::STD_DESCR, "?"), "");
}

TEST_F(UndoableNetif, UndoneItCanBeDoneAgain) {
  EXPECT_FALSE(kl::isError(describe(lo_, "first")));
  (void)nextRecord();
  EXPECT_FALSE(kl::isError(describe(lo_, "second")));
  const kl::message record = nextRecord();
  EXPECT_FALSE(kl::isError(undo(record, 9)));
  EXPECT_EQ(description(), "first");
  const kl::message redo = nextRecord();
  EXPECT_EQ(redo.get(kl::SYS_CMD, 0), kl::CMD_SETOBJ);
  EXPECT_EQ(redo.get(kl::STD_ID, 0), 9u);
  EXPECT_FALSE(kl::isError(undo(redo, 9)));
  EXPECT_EQ(description(), "second");
}

TEST_F(UndoableNetif, ADescriptionThatWasNotThereIsGoneAgain) {
  EXPECT_FALSE(kl::isError(describe(lo_, "to itself")));
  EXPECT_FALSE(kl::isError(undo(nextRecord(), 9)));
  EXPECT_FALSE(askFor(kl::CMD_GETOBJ, lo_).has(kl::STD_DESCR));
}

TEST_F(UndoableNetif, WhatChangesNothingIsNotReported) {
  EXPECT_FALSE(kl::isError(describe(lo_, "")));
  EXPECT_FALSE(kl::isError(describe(lo_, "same")));
  EXPECT_FALSE(kl::isError(describe(lo_, "same")));
  EXPECT_FALSE(kl::isError(describe(lo_, "other")));
  EXPECT_EQ(kl::message(nextRecord().get(kUndo, {})).get(kl::STD_DESCR, "?"), "");
  EXPECT_EQ(kl::message(nextRecord().get(kUndo, {})).get(kl::STD_DESCR, "?"), "same");
}
