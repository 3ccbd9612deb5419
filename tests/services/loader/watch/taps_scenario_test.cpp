// Real services, and somebody who looks on.

#include <gtest/gtest.h>

#include "kl/rights.h"
#include "services/common/tap.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"

namespace {

using kl::test::LoaderProcess;
using kl::test::RawPeer;
using kl::test::replyTo;
using kl::test::request;
using Ids = std::vector<unsigned int>;

class TapsScenario : public testing::Test {
 protected:
  static kl::message tapRequest(unsigned int id) {
    return request({kl::SERVICE_LOADER}, common::tap::CMD_TAP, id, {9});
  }

  void roundTrip(unsigned int id) {
    ASSERT_TRUE(a_.send(request({501, 0}, kl::CMD_GET, id, {7})));
    const auto asked = b_.receiveCommand(kl::CMD_GET);
    ASSERT_TRUE(asked);
    ASSERT_TRUE(b_.send(replyTo(*asked)));
    ASSERT_TRUE(a_.receiveReply(id));
  }

  // The next `count` messages that a tap shows, and the lost ones, which count as well.
  static std::vector<kl::message> shown(RawPeer& reader, unsigned long long count) {
    std::vector<kl::message> all;
    for (unsigned long long seen = 0; seen < count;) {
      const auto batch = reader.receiveCommand(common::tap::CMD_TAP);
      if (!batch) return all;
      for (const auto& object : batch->get(kl::STD_OBJS, {})) {
        all.emplace_back(object);
        seen += all.back().get(common::tap::LOST, 1);
      }
    }
    return all;
  }

  const LoaderProcess loader_{""};
  RawPeer a_ = RawPeer::registered(500);
  RawPeer b_ = RawPeer::registered(501);
  RawPeer reader_ = RawPeer::registered(502);
};

TEST_F(TapsScenario, ARoundTripIsSeen) {
  ASSERT_TRUE(reader_.send(tapRequest(3)));
  ASSERT_TRUE(reader_.receiveReply(3));
  roundTrip(5);
  const auto all = shown(reader_, 2);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].get(common::tap::SENDER, 0), 500u);
  EXPECT_EQ(all[1].get(common::tap::SENDER, 0), 501u);
  EXPECT_TRUE(all[1].has(common::tap::AGE));
}

TEST_F(TapsScenario, WhoDoesNotReadHoldsNobodyUpAndIsToldWhatItLost) {
  ASSERT_TRUE(reader_.send(tapRequest(3)));
  ASSERT_TRUE(reader_.receiveReply(3));
  constexpr unsigned int kTimes = 8000;
  for (unsigned int id = 1; id <= kTimes; ++id) ASSERT_NO_FATAL_FAILURE(roundTrip(id));
  unsigned long long lost = 0;
  const auto all = shown(reader_, 2 * kTimes);
  for (const kl::message& m : all) lost += m.get(common::tap::LOST, 0);
  EXPECT_GT(lost, 0u);
  roundTrip(kTimes + 1);
  EXPECT_EQ(shown(reader_, 2).size(), 2u);
}

TEST_F(TapsScenario, AReaderThatGoesMakesRoomForAnother) {
  std::vector<RawPeer> readers;
  for (unsigned int id = 510; id < 514; ++id) {
    readers.push_back(RawPeer::registered(id));
    ASSERT_TRUE(readers.back().send(tapRequest(3)));
    ASSERT_FALSE(kl::isError(readers.back().receiveReply(3).value_or(kl::errorMsg(kl::ERROR_TIMEOUT, ""))));
  }
  ASSERT_TRUE(reader_.send(tapRequest(3)));
  const auto refused = reader_.receiveReply(3);
  ASSERT_TRUE(refused);
  EXPECT_TRUE(kl::isError(*refused));
  ASSERT_TRUE(reader_.meet(513, readers.back()));
  readers.pop_back();
  ASSERT_TRUE(reader_.receiveCommand(kl::CMD_DISCONNECTED));
  ASSERT_TRUE(reader_.send(tapRequest(4)));
  EXPECT_FALSE(kl::isError(reader_.receiveReply(4).value_or(kl::errorMsg(kl::ERROR_TIMEOUT, ""))));
}

}  // namespace
