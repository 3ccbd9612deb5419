// Processes that come: under which id, and with which rights.

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"
#include "tests/support/process/child_process.h"

namespace {

using kl::test::hello;
using kl::test::holdsAs;
using kl::test::LoaderProcess;
using kl::test::notification;
using kl::test::RawPeer;
using kl::test::replyTo;
using kl::test::request;
using Ids = std::vector<unsigned int>;

constexpr uid_t kNobody = 65534;

TEST(RegistrationScenario, ARegistrationIsConfirmed) {
  const LoaderProcess loader;
  RawPeer peer;
  ASSERT_TRUE(peer.connect());
  EXPECT_EQ(peer.registerAs(500), 500u);
  EXPECT_EQ(peer.ready().get(kl::READY_VERSION, 0), 0x01006600u);
  EXPECT_EQ(peer.ready().get(kl::READY_STARTS, 0), 1u);
}

TEST(RegistrationScenario, NothingMayComeBeforeIt) {
  const LoaderProcess loader;
  RawPeer peer;
  ASSERT_TRUE(peer.connect());
  ASSERT_TRUE(peer.send(notification({1})));
  EXPECT_TRUE(peer.isDisconnected());
  EXPECT_TRUE(loader.logs("sent a message before its registration; disconnected"));
}

TEST(RegistrationScenario, ATakenIdIsRefusedAndItsOwnerKeepsIt) {
  const LoaderProcess loader;
  RawPeer first;
  RawPeer second;
  ASSERT_TRUE(first.connect());
  ASSERT_TRUE(second.connect());
  ASSERT_EQ(first.registerAs(500), 500u);
  ASSERT_TRUE(second.send(hello(500)));
  EXPECT_TRUE(second.isDisconnected());
  EXPECT_TRUE(loader.logs("asks for the id 500, which "));
  EXPECT_TRUE(first.isQuiet(20));
  ASSERT_TRUE(first.send(request({500}, kl::CMD_GET, 1)));
  EXPECT_TRUE(first.receiveCommand(kl::CMD_GET));
}

TEST(RegistrationScenario, IdsThatTheLoaderKeepsAreRefused) {
  const LoaderProcess loader;
  for (const unsigned int id : {1u, kl::PATH_ALL, kl::PATH_MULTI, kl::PATH_SELF, kl::BADID}) {
    RawPeer peer;
    ASSERT_TRUE(peer.connect());
    EXPECT_EQ(peer.registerAs(id), 0u);
    EXPECT_TRUE(peer.isDisconnected());
  }
}

TEST(RegistrationScenario, PickedIdsAreNotUsedAgainSoonNotEvenByTheNextLoader) {
  unsigned int highest = 0xffff;
  for (int start = 0; start < 2; ++start) {
    const LoaderProcess loader;
    for (int i = 0; i < 3; ++i) {
      RawPeer peer;
      ASSERT_TRUE(peer.connect());
      const unsigned int id = peer.registerAs(0);
      EXPECT_GT(id, highest);
      EXPECT_LT(id, 0xff0000u);
      highest = id;
    }
  }
}

TEST(RegistrationScenario, TwoHundredPeersAtOnceAreServedAndLeaveNothingBehind) {
  const LoaderProcess loader;
  RawPeer first;  // behind its registration the loader has done with everybody before it
  ASSERT_TRUE(first.connect());
  ASSERT_NE(first.registerAs(0), 0u);
  const std::size_t before = loader.descriptors();
  {
    std::vector<RawPeer> peers(200);
    for (RawPeer& peer : peers) ASSERT_TRUE(peer.connect());
    for (std::size_t i = 0; i < peers.size(); ++i)
      ASSERT_TRUE(peers[i].send(hello(static_cast<unsigned int>(1000 + i))));
    for (RawPeer& peer : peers) ASSERT_TRUE(peer.receive());
    EXPECT_EQ(loader.descriptors(), before + 200);
    for (std::size_t i = 0; i < peers.size(); ++i)
      ASSERT_TRUE(
          peers[i].send(request({static_cast<unsigned int>(1000 + (i + 1) % 200), 3}, kl::CMD_GET, 9, {7})));
    for (RawPeer& peer : peers) {
      const auto asked = peer.receiveCommand(kl::CMD_GET);
      ASSERT_TRUE(asked);
      ASSERT_TRUE(peer.send(replyTo(*asked)));
    }
    for (RawPeer& peer : peers) ASSERT_TRUE(peer.receiveReply(9));

    ASSERT_TRUE(peers[0].send(notification({kl::PATH_ALL, 4})));
    for (std::size_t i = 1; i < peers.size(); ++i) ASSERT_TRUE(peers[i].receiveCommand(kl::CMD_NOTIFY));
  }
  RawPeer last = RawPeer::registered();
  kl::message count = request({1}, kl::CMD_GETCOUNT, 1);
  for (unsigned int rows = 0; rows != 3;) {  // the loader, the first and the one that asks
    ASSERT_TRUE(last.send(count));
    const auto answer = last.receiveReply(1);
    ASSERT_TRUE(answer);
    rows = answer->get(kl::STD_GETALLNO, 0);
  }
  EXPECT_EQ(loader.descriptors(), before + 1);
}

TEST(RegistrationScenario, RootKeepsTheRightsThatItSets) {
  const LoaderProcess loader;
  RawPeer a;
  RawPeer b;
  ASSERT_TRUE(a.connect());
  ASSERT_TRUE(b.connect());
  ASSERT_EQ(a.registerAs(500), 500u);
  ASSERT_EQ(b.registerAs(501), 501u);
  kl::message m = request({501}, kl::CMD_SET, 1);
  m.insert(kl::SYS_USER, "somebody");
  m.insert(kl::SYS_POLICY, 128);
  ASSERT_TRUE(a.send(m));
  const auto got = b.receiveCommand(kl::CMD_SET);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->get(kl::SYS_USER, ""), "somebody");
  EXPECT_EQ(got->get(kl::SYS_POLICY, 0), 128u);
}

TEST(RegistrationScenario, ForgedRightsOfAnOrdinaryUserAreReplaced) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const LoaderProcess loader;
  RawPeer b = RawPeer::registered(501);
  EXPECT_TRUE(holdsAs(kNobody, [] {
    RawPeer a;
    if (!a.connect() || a.registerAs(0) == 0) return false;
    kl::message forged = request({501}, kl::CMD_SET, 1, {7});
    forged.insert(kl::SYS_USER, "root");
    forged.insert(kl::SYS_POLICY, 0xffffffff);
    return a.send(forged) && a.send(request({501}, kl::CMD_RESET, 2, {7}));
  }));
  for (const unsigned int command : {kl::CMD_SET, kl::CMD_RESET}) {
    const auto got = b.receiveCommand(command);
    ASSERT_TRUE(got);
    EXPECT_EQ(got->get(kl::SYS_USER, ""), "nobody");
    EXPECT_EQ(got->get(kl::SYS_POLICY, 0), 64u);
    const Ids from = got->get(kl::SYS_FROM, {});
    ASSERT_EQ(from.size(), 2u);
    EXPECT_GE(from[0], 0x10000u);
    EXPECT_EQ(from[1], 7u);
  }
}

TEST(RegistrationScenario, AnOrdinaryUserMayReadTheTableButNotStopAService) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const LoaderProcess loader;
  EXPECT_TRUE(holdsAs(kNobody, [] {
    RawPeer a;
    if (!a.connect() || a.registerAs(0) == 0) return false;
    kl::message stop = request({1}, kl::CMD_SETOBJ, 2);
    stop.insert(kl::STD_ID, 1);
    stop.insert(kl::SVC_ACTION, kl::SVC_STOP);
    stop.insert(kl::SYS_POLICY, 0xffffffff);
    if (!a.send(request({1}, kl::CMD_GETALL, 1)) || !a.send(stop)) return false;
    const auto all = a.receiveReply(1);
    const auto refused = a.receiveReply(2);
    unsigned int code = 0;
    return all && !kl::isError(*all) && refused && kl::isError(*refused, &code) &&
           code == kl::ERROR_NOTALLOWED;
  }));
}

TEST(RegistrationScenario, AConfiguredIdIsForItsUserAlone) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const LoaderProcess loader("[[service]]\nname = \"lab\"\nid = 40\nuser = \"nobody\"\nrights = \"read\"\n");
  RawPeer root;
  ASSERT_TRUE(root.connect());
  EXPECT_EQ(root.registerAs(40), 0u);
  EXPECT_TRUE(loader.logs("asks for the id 40, which is configured for lab and not for this user"));
  EXPECT_TRUE(holdsAs(kNobody, [] {
    RawPeer a;
    return a.connect() && a.registerAs(40) == 40;
  }));
}

TEST(RegistrationScenario, AForgedReturnPathReachesNobodyElse) {
  const LoaderProcess loader;
  RawPeer a;
  RawPeer b;
  RawPeer victim;
  ASSERT_TRUE(a.connect() && b.connect() && victim.connect());
  ASSERT_EQ(a.registerAs(500), 500u);
  ASSERT_EQ(b.registerAs(501), 501u);
  ASSERT_EQ(victim.registerAs(502), 502u);
  ASSERT_TRUE(a.send(request({501}, kl::CMD_GET, 1, {502, 7})));
  const auto asked = b.receiveCommand(kl::CMD_GET);
  ASSERT_TRUE(asked);
  EXPECT_EQ(asked->get(kl::SYS_FROM, {}), (Ids{500, 502, 7}));
  ASSERT_TRUE(b.send(replyTo(*asked)));
  const auto answer = a.receiveReply(1);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->get(kl::SYS_TO, {}), (Ids{502, 7}));
  EXPECT_TRUE(victim.isQuiet(20));
}

TEST(RegistrationScenario, RepliesThatNobodyAskedForAreNotDelivered) {
  const LoaderProcess loader;
  RawPeer a = RawPeer::registered(500);
  RawPeer b = RawPeer::registered(501);
  ASSERT_TRUE(b.send(replyTo(request({501}, kl::CMD_GET, 1, {500, 7}))));
  ASSERT_TRUE(b.send(request({500}, kl::CMD_GET, 3)));  // comes behind it
  const auto first = a.receive();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->get(kl::SYS_CMD, 0), kl::CMD_GET);
}

}  // namespace
