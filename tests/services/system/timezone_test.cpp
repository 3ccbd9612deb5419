#include "services/system/timezone.h"

#include <gtest/gtest.h>

#include <ctime>
#include <iostream>

#include "kl/services.h"
#include "tests/services/system/fixture.h"
#include "tests/support/process/child.h"

namespace kl_system {
namespace {

using kl::test::RawPeer;
using kl::test::request;

const std::vector<unsigned int> kTimezonePath = {kl::SERVICE_SYSTEM, 0};

// A process that follows local time as any service may, until it changes.
class Clock : public kl::Looper {
 public:
  Clock() : kl::Looper(kConnect) {}

 private:
  void handleCmd(const kl::message& m, unsigned int command) override {
    kl::Looper::handleCmd(m, command);
    if (command == kl::SYSTEM_TIMEZONE_CHANGED) shutdown();
  }
};

kl::message subscription(unsigned int command) {
  kl::message m = kl::test::notification(kTimezonePath, {5});
  m.insert(kl::SYS_CMD, command);
  m.insert(kl::SYS_NOTIFYCMD, kl::SYSTEM_TIMEZONE_CHANGED);
  return m;
}

}  // namespace

TEST_F(SystemProcess, TheOffsetIsReadAtTheTopOfTheReply) {
  RawPeer peer = connected();
  const auto reply = ask(peer, request(kTimezonePath, kl::CMD_GET, 1));
  ASSERT_TRUE(reply);
  EXPECT_FALSE(kl::isError(*reply));
  EXPECT_EQ(static_cast<int>(reply->get(kl::SYSTEM_TIMEZONE, 0)), kFirstOffset);
  EXPECT_EQ(reply->get_u32(0x0800001b, 0), reply->get(kl::SYSTEM_TIMEZONE, 1));
}

TEST_F(SystemProcess, AChangeIsSentUnderTheCommandOfTheTimeZone) {
  RawPeer peer = connected();
  ASSERT_TRUE(peer.send(subscription(kl::CMD_SUBSCRIBE)));
  ASSERT_TRUE(ask(peer, request(kTimezonePath, kl::CMD_GET, 1)));
  replaceFile(kZone, zoneBytes(-1800));
  const auto told = peer.receiveCommand(kl::SYSTEM_TIMEZONE_CHANGED);
  ASSERT_TRUE(told);
  EXPECT_EQ(static_cast<int>(told->get(kl::SYSTEM_TIMEZONE, 0)), -1800);
  EXPECT_EQ(told->get(kl::SYS_TO, {}), std::vector<unsigned int>{5});
  EXPECT_EQ(told->get(kl::SYS_FROM, {}), kTimezonePath);
  EXPECT_FALSE(told->has(kl::STD_OBJS));
}

TEST_F(SystemProcess, WhoUnsubscribedIsNotTold) {
  RawPeer stays = connected();
  RawPeer goes = connected();
  for (RawPeer* peer : {&stays, &goes}) ASSERT_TRUE(peer->send(subscription(kl::CMD_SUBSCRIBE)));
  ASSERT_TRUE(goes.send(subscription(kl::CMD_UNSUBSCRIBE)));
  for (RawPeer* peer : {&stays, &goes}) ASSERT_TRUE(ask(*peer, request(kTimezonePath, kl::CMD_GET, 1)));
  replaceFile(kZone, zoneBytes(-1800));
  EXPECT_TRUE(stays.receiveCommand(kl::SYSTEM_TIMEZONE_CHANGED));
  EXPECT_TRUE(goes.isQuiet());
}

TEST_F(SystemProcess, ALooperFollowsLocalTime) {
  const kl::test::ChildResult child = kl::test::runInChild([] {
    Clock clock;
    std::cout << clock.getTimezone() << " ";
    replaceFile(kZone, zoneBytes(-1800));
    clock.run();
    const auto utc = static_cast<unsigned int>(std::time(nullptr));
    const unsigned int local = clock.getLocaltime();
    std::cout << clock.getTimezone() << " " << (utc - local == 1800 || utc - local == 1799) << std::flush;
  });
  EXPECT_EQ(child.exitStatus, 0) << child.err;
  EXPECT_EQ(child.out, std::to_string(kFirstOffset) + " -1800 1");
}

}  // namespace kl_system
