// Real services that wait for each other.

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"

namespace {

using kl::test::LoaderProcess;
using kl::test::RawPeer;
using kl::test::request;
using Ids = std::vector<unsigned int>;

class WatchScenario : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(a_.connect());
    ASSERT_EQ(a_.registerAs(500), 500u);
    ASSERT_TRUE(b_.connect());
    ASSERT_EQ(b_.registerAs(501), 501u);
  }

  // Both have been given what the other one asks.
  void closeCircle() {
    ASSERT_TRUE(a_.send(request({501, 0}, kl::CMD_GET, 5, {7})));
    ASSERT_TRUE(b_.receiveCommand(kl::CMD_GET));
    ASSERT_TRUE(b_.send(request({500, 0}, kl::CMD_SET, 6, {7})));
    ASSERT_TRUE(a_.receiveCommand(kl::CMD_SET));
  }

  const LoaderProcess loader_{""};
  RawPeer a_;
  RawPeer b_;
};

TEST_F(WatchScenario, ACircleIsNamedOnTheLog) {
  closeCircle();
  ASSERT_TRUE(a_.receiveCommand(kl::CMD_NOOP));
  ASSERT_TRUE(b_.receiveCommand(kl::CMD_NOOP));
  EXPECT_TRUE(loader_.logs("a circle of requests: "));
  EXPECT_TRUE(loader_.logs("(CMD_SET); none of them answers"));
}

TEST_F(WatchScenario, WhoAnswersTheLoaderIsInNoDeadlock) {
  closeCircle();
  for (unsigned int i = 0; i < 2; ++i) {
    const auto probe = a_.receiveCommand(kl::CMD_NOOP);
    ASSERT_TRUE(probe);
    kl::message answer;
    answer.insert(kl::SYS_TYPE, kl::TYPE_REPLY);
    answer.insert(kl::SYS_TO, probe->get(kl::SYS_FROM, {}));
    answer.insert(kl::SYS_REQID, probe->get(kl::SYS_REQID, 0));
    ASSERT_TRUE(a_.send(answer));
    ASSERT_TRUE(b_.send(request({500, 0}, kl::CMD_GET, 7 + i, {7})));  // which begins the next look
  }
  EXPECT_EQ(loader_.log().find("a circle of requests"), std::string::npos);
}

TEST_F(WatchScenario, TheOpenRequestsAreATableOfTheLoader) {
  ASSERT_TRUE(a_.send(request({501, 0}, kl::CMD_GETCOUNT, 5, {7})));
  ASSERT_TRUE(b_.receiveCommand(kl::CMD_GETCOUNT));
  ASSERT_TRUE(b_.send(request({kl::SERVICE_LOADER, kl::LOADER_REQUESTS}, kl::CMD_GETALL, 8)));
  const auto table = b_.receiveReply(8);
  ASSERT_TRUE(table);
  const auto rows = table->get(kl::STD_OBJS, {});
  ASSERT_EQ(rows.size(), 1u);
  const kl::message row(rows[0]);
  EXPECT_EQ(row.get(kl::REQUEST_ASKER, 0), 500u);
  EXPECT_EQ(row.get(kl::REQUEST_ASKED, 0), 501u);
  EXPECT_EQ(row.get(kl::REQUEST_PATH, {}), Ids{0});
  EXPECT_EQ(row.get(kl::REQUEST_COMMAND, 0), kl::CMD_GETCOUNT);
}

}  // namespace
