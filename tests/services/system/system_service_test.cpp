#include "services/system/system_service.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <optional>

#include "tests/services/system/fixture.h"
#include "tests/support/process/child_process.h"

namespace {

std::string hostnameFile() { return kl::underRoot("/ram/hostname"); }

}  // namespace

// In this program the host is called what the test says.
extern "C" int gethostname(char* name, size_t length) noexcept {
  std::string text = "unnamed";
  std::getline(std::ifstream(hostnameFile()), text);
  std::strncpy(name, text.c_str(), length);
  return 0;
}

namespace kl_system {
namespace {

using kl::test::RawPeer;
using kl::test::request;
using Ids = std::vector<unsigned int>;

const Ids kTable = {kl::SERVICE_SYSTEM};

Ids idsIn(const kl::message& reply) {
  Ids ids;
  for (const kl::message object : reply.get(kl::STD_OBJS, {}))
    ids.push_back(object.get(kl::STD_ID, kl::BADID));
  return ids;
}

void nameHost(const std::string& name) { replaceFile(hostnameFile(), name + "\n"); }

// The service in a process of its own that looks at the figures every tenth of a second.
class FollowedSystem : public testing::Test {
 protected:
  FollowedSystem()
      : loader_("[rights]\ndefault = \"all\"\n[[service]]\nname = \"system\"\nid = 24\nuser = \"" +
                std::string(::getpwuid(::geteuid())->pw_name) + "\"\n[service.settings]\n0x08000001 = 10\n") {
    nameHost("first");
    service_.emplace([] { SystemService().run(); });
  }

  // The service may still be on its way to the loader.
  RawPeer follower() {
    RawPeer peer;
    EXPECT_TRUE(peer.connect());
    EXPECT_NE(peer.registerAs(0), 0u);
    std::optional<kl::message> reply;
    for (unsigned int id = 1; !reply || kl::isError(*reply); ++id) {
      EXPECT_TRUE(peer.send(request(kTable, kl::CMD_NOOP, id)));
      reply = peer.receiveReply(id);
      if (!reply) break;
    }
    return peer;
  }

  // The host's name in the next notification about the host.
  static std::string toldHost(RawPeer& peer) {
    while (const auto told = peer.receiveCommand(kl::CMD_NOTIFY))
      for (const kl::message object : told->get(kl::STD_OBJS, {}))
        if (object.get(kl::STD_ID, 0) == kl::SYSTEM_OBJECT_HOST) return object.get(kl::SYSTEM_HOSTNAME, "");
    return "nothing";
  }

  kl::test::LoaderProcess loader_;
  std::optional<kl::test::ChildProcess> service_;
};

kl::message subscribe() {
  kl::message m = kl::test::notification(kTable);
  m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  return m;
}

}  // namespace

TEST_F(SystemProcess, ItsObjectsAreReadTogether) {
  RawPeer peer = connected();
  const auto reply = ask(peer, request(kTable, kl::CMD_GETALL, 1));
  ASSERT_TRUE(reply);
  EXPECT_EQ(idsIn(*reply), (Ids{0, 1, 2, 3, 4, 5}));
  EXPECT_FALSE(reply->has(kl::STD_GETALLID));
  const auto count = ask(peer, request(kTable, kl::CMD_GETCOUNT, 2));
  ASSERT_TRUE(count);
  EXPECT_EQ(count->get(kl::STD_GETALLNO, 0), 6u);
}

TEST_F(SystemProcess, ItsObjectsAreReadInParts) {
  RawPeer peer = connected();
  kl::message some = request(kTable, kl::CMD_GETALL, 1);
  some.insert(kl::STD_GETALLID, 1);
  some.insert(kl::STD_GETALLNO, 2);
  const auto reply = ask(peer, some);
  ASSERT_TRUE(reply);
  EXPECT_EQ(idsIn(*reply), (Ids{1, 2}));
  EXPECT_EQ(reply->get(kl::STD_GETALLID, 0), 3u);
  kl::message behind = request(kTable, kl::CMD_GETALL, 2);
  behind.insert(kl::STD_GETALLID, 4711);
  const auto none = ask(peer, behind);
  ASSERT_TRUE(none);
  EXPECT_TRUE(idsIn(*none).empty());
  EXPECT_FALSE(none->has(kl::STD_GETALLID));
}

TEST_F(SystemProcess, EachObjectHasItsFigures) {
  RawPeer peer = connected();
  const auto get = [&](unsigned int id) {
    kl::message m = request(kTable, kl::CMD_GETOBJ, id + 1);
    m.insert(kl::STD_ID, id);
    return ask(peer, m).value_or(kl::message());
  };
  EXPECT_EQ(get(kl::SYSTEM_OBJECT_TIMEZONE).get(kl::SYSTEM_TIMEZONE, 0), 5400u);
  EXPECT_EQ(get(kl::SYSTEM_OBJECT_HOST).get(kl::STD_DESCR, ""), "host");
  EXPECT_TRUE(get(kl::SYSTEM_OBJECT_HOST).has(kl::SYSTEM_HOSTNAME));
  EXPECT_TRUE(get(kl::SYSTEM_OBJECT_VERSION).has(kl::SYSTEM_VERSION));
  EXPECT_GT(get(kl::SYSTEM_OBJECT_UPTIME).get(kl::SYSTEM_UPTIME, 0), 0u);
  EXPECT_GT(get(kl::SYSTEM_OBJECT_MEMORY).get(kl::SYSTEM_MEMORY_TOTAL, 0), 0u);
  EXPECT_EQ(get(kl::SYSTEM_OBJECT_LOAD).get(kl::SYSTEM_LOAD, {}).size(), 3u);
  unsigned int code = 0;
  EXPECT_TRUE(kl::isError(get(6), &code));
  EXPECT_EQ(code, kl::ERROR_UNKNOWNID);
}

TEST_F(SystemProcess, EverythingIsReadWithOneGet) {
  RawPeer peer = connected();
  const auto all = ask(peer, request(kTable, kl::CMD_GET, 1));
  ASSERT_TRUE(all);
  EXPECT_EQ(all->get(kl::SYSTEM_TIMEZONE, 0), 5400u);
  EXPECT_TRUE(all->has(kl::SYSTEM_HOSTNAME));
  EXPECT_TRUE(all->has(kl::SYSTEM_LOAD));
}

TEST_F(SystemProcess, ItsObjectsAreNotSet) {
  RawPeer peer = connected();
  kl::message m = request(kTable, kl::CMD_SETOBJ, 1);
  m.insert(kl::STD_ID, kl::SYSTEM_OBJECT_HOST);
  m.insert(kl::SYSTEM_HOSTNAME, "other");
  EXPECT_TRUE(kl::isError(ask(peer, m).value_or(kl::message())));
}

TEST_F(SystemProcess, WhoFollowsTheTableIsToldOfTheTimeZoneToo) {
  RawPeer peer = connected();
  ASSERT_TRUE(peer.send(subscribe()));
  ASSERT_TRUE(ask(peer, request(kTable, kl::CMD_NOOP, 1)));
  replaceFile(kZone, zoneBytes(7200));
  const auto told = peer.receiveCommand(kl::CMD_NOTIFY);
  ASSERT_TRUE(told);
  EXPECT_EQ(idsIn(*told), (Ids{kl::SYSTEM_OBJECT_TIMEZONE}));
}

TEST_F(FollowedSystem, AChangeIsToldToWhoFollows) {
  RawPeer peer = follower();
  ASSERT_TRUE(peer.send(subscribe()));
  ASSERT_TRUE(peer.send(request(kTable, kl::CMD_NOOP, 1000)));
  ASSERT_TRUE(peer.receiveReply(1000));
  nameHost("second");
  EXPECT_EQ(toldHost(peer), "second");
  nameHost("third");
  EXPECT_EQ(toldHost(peer), "third");
}

TEST_F(FollowedSystem, WhatChangedWhileNobodyFollowedIsNoNews) {
  RawPeer peer = follower();
  nameHost("second");
  ASSERT_TRUE(peer.send(subscribe()));
  ASSERT_TRUE(peer.send(request(kTable, kl::CMD_NOOP, 1000)));
  ASSERT_TRUE(peer.receiveReply(1000));
  nameHost("third");
  EXPECT_EQ(toldHost(peer), "third");
}

}  // namespace kl_system
