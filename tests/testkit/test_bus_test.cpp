#include "tests/testkit/fixture.h"

namespace kl::test {
namespace {

using TestBusTest = KeeperOnABus;

TEST_F(TestBusTest, AnswersFromTheHandlerUnderTest) {
  Peer client(bus);
  EXPECT_EQ(client.ask(kPath, CMD_GET).get(kNumber, 0), 7u);
  EXPECT_EQ(errorOf(client.ask(kPath, CMD_SET, numbered(8))), ERROR_OK);
  EXPECT_EQ(client.ask(kPath, CMD_GET).get(kNumber, 0), 8u);
  EXPECT_EQ(errorOf(client.ask({kService, 5}, CMD_GET)), ERROR_BRKPATH);
}

TEST_F(TestBusTest, TheNumberOfAHandlerIsTakenOnce) {
  Keeper second;
  EXPECT_THROW(bus.add(0, second), Failure);
}

TEST_F(TestBusTest, AnswersForTheLoaderByScripts) {
  message m;
  m.insert(SYS_TO, {SERVICE_LOADER});
  EXPECT_EQ(errorOf(keeper.exchangeCmd(m, CMD_GETCOUNT, 100)), ERROR_NOTIMP);
  bus.onLoader(CMD_GETCOUNT, [](const message&) { return numbered(3); });
  message again;
  again.insert(SYS_TO, {SERVICE_LOADER});
  EXPECT_EQ(keeper.exchangeCmd(again, CMD_GETCOUNT, 100).get(kNumber, 0), 3u);
}

// One that the test makes, as the service's main() does.
TEST(TestBusWithALooper, ServesALooperOfTheTests) {
  TestBus bus;
  EXPECT_EQ(bus.service(), 0u);
  Looper loop(Looper::kAny, kService);
  Keeper keeper;
  loop.addHandler(3, &keeper);
  EXPECT_EQ(bus.service(), kService);
  Peer client(bus);
  EXPECT_EQ(client.ask({kService, 3}, CMD_GET).get(kNumber, 0), 7u);
}

TEST(TestBusWithALooper, GivesAnIdToWhoAsksForNone) {
  TestBus bus;
  Looper loop(Looper::kAny);
  EXPECT_EQ(loop.getLoaderValue(1), 0x10000u);
}

}  // namespace
}  // namespace kl::test
