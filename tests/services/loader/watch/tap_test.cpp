#include "services/loader/watch/tap.h"

#include <gtest/gtest.h>

#include "services/common/tap.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Tap;
using Messages = std::vector<kl::message>;

class TapTest : public testing::Test {
 protected:
  void add(unsigned int number) {
    const auto body = flat(request({24, 0}, kl::CMD_GET, number, {7}));
    loader::Envelope e;
    ASSERT_EQ(loader::readEnvelope(body, e), nullptr);
    loader::PassingMessage message(e);
    message.from = 10;
    message.path = e.path();
    tap_.add(message);
  }

  // The messages that the reader gets when it has read all.
  Messages sent() {
    Messages all;
    tap_.send(outbox_);
    for (const kl::message& batch : takeMessages(reader_))
      for (const auto& object : batch.get(kl::STD_OBJS, {})) all.emplace_back(object);
    return all;
  }

  loader::ServiceTable services_;
  loader::Outbox outbox_{1 << 20};
  loader::Service& reader_ = connected(services_, 500);
  Tap tap_{reader_, {9}, {}};
};

TEST_F(TapTest, WhatWasAddedIsSentInItsOrder) {
  EXPECT_TRUE(tap_.isEmpty());
  for (unsigned int number = 1; number <= 3; ++number) add(number);
  const Messages all = sent();
  ASSERT_EQ(all.size(), 3u);
  for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(all[i].get(common::tap::NUMBER, 0), i + 1);
  EXPECT_TRUE(tap_.isEmpty());
}

TEST_F(TapTest, TheReaderIsSentNoMoreThanItReads) {
  for (unsigned int number = 1; number <= 2000; ++number) add(number);
  tap_.send(outbox_);
  EXPECT_FALSE(tap_.isEmpty());
  EXPECT_GE(reader_.waiting(), Tap::kMostUnread);
  const std::size_t waiting = reader_.waiting();
  tap_.send(outbox_);
  EXPECT_EQ(reader_.waiting(), waiting);
}

TEST_F(TapTest, ANextOneStandsBehindTheNumberOfTheLost) {
  for (unsigned int number = 1; number <= 10'000; ++number) add(number);
  const unsigned int before = static_cast<unsigned int>(sent().size());
  add(77'777);
  Messages last;
  for (Messages part = sent(); !part.empty(); part = sent())
    last.insert(last.end(), part.begin(), part.end());
  ASSERT_GE(last.size(), 2u);
  EXPECT_EQ(last.back().get(common::tap::NUMBER, 0), 77'777u);
  EXPECT_EQ(last[last.size() - 2].get(common::tap::LOST, 0), 10'000 - before - (last.size() - 2));
}

TEST_F(TapTest, TheLostAreToldWhenNothingComesBehindThem) {
  for (unsigned int number = 1; number <= 10'000; ++number) add(number);
  Messages all;
  for (Messages part = sent(); !part.empty(); part = sent()) all.insert(all.end(), part.begin(), part.end());
  EXPECT_EQ(all.back().get(common::tap::LOST, 0), 10'000 - (all.size() - 1));
}

}  // namespace
