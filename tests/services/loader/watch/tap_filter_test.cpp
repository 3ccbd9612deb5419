#include "services/loader/watch/tap_filter.h"

#include <gtest/gtest.h>

#include "services/common/tap.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::PassingMessage;
using loader::TapFilter;

class TapFilterTest : public testing::Test {
 protected:
  // A message of service 10 to this path passes.
  bool lets(const Ids& path, unsigned int status = kl::STATUS_OK) {
    kl::message m = notification(path, {7});
    m.insert(kl::SYS_STATUS, status);
    const auto body = flat(m);
    loader::Envelope e;
    EXPECT_EQ(loader::readEnvelope(body, e), nullptr);
    PassingMessage message(e);
    message.from = 10;
    message.path = e.path();
    message.command = command_;
    message.age = age_;
    return filter_.matches(message);
  }

  void ask(const kl::message& request) { EXPECT_EQ(filter_.read(request), ""); }
  void askFor(const Ids& services, std::optional<unsigned int> peer = {}) {
    kl::message m;
    if (!services.empty()) m.insert(common::tap::SERVICES, services);
    if (peer) m.insert(common::tap::PEER, *peer);
    ask(m);
  }

  TapFilter filter_;
  std::optional<unsigned int> command_ = kl::CMD_NOTIFY;
  std::optional<unsigned long long> age_;
};

TEST_F(TapFilterTest, WithoutAWishEverythingPasses) {
  ask({});
  EXPECT_TRUE(lets({24, 0}));
  EXPECT_TRUE(lets({kl::PATH_ALL}));
  EXPECT_EQ(filter_.contents(), 0u);
}

TEST_F(TapFilterTest, AServiceIsEitherEnd) {
  askFor({10});
  EXPECT_TRUE(lets({24}));
  askFor({11, 24});
  EXPECT_TRUE(lets({24}));
  EXPECT_FALSE(lets({25}));
  EXPECT_FALSE(lets({1, 24}));  // that is a handler
}

TEST_F(TapFilterTest, APeerIsTheOtherEnd) {
  askFor({10}, 24);
  EXPECT_TRUE(lets({24}));
  EXPECT_FALSE(lets({25}));
  askFor({24}, 10);
  EXPECT_TRUE(lets({24}));
  askFor({25}, 10);
  EXPECT_FALSE(lets({24}));
  askFor({}, 10);
  EXPECT_TRUE(lets({24}));
  askFor({}, 11);
  EXPECT_FALSE(lets({24}));
}

TEST_F(TapFilterTest, OneOfManyReceiversIsEnough) {
  askFor({24});
  EXPECT_TRUE(lets({kl::PATH_MULTI, 2, 23, 0, 1, 24}));
  EXPECT_FALSE(lets({kl::PATH_MULTI, 2, 23, 24, 1, 25}));
  EXPECT_FALSE(lets({kl::PATH_MULTI, 9, 23, 24}));  // no path at all
  EXPECT_TRUE(lets({kl::PATH_ALL, 0}));
  askFor({10}, 24);
  EXPECT_TRUE(lets({kl::PATH_MULTI, 2, 23, 0, 1, 24}));
  EXPECT_TRUE(lets({kl::PATH_ALL, 0}));
}

TEST_F(TapFilterTest, ACommandIsThatOfTheRequestInAReplyToo) {
  kl::message m;
  m.insert(common::tap::COMMAND, kl::CMD_GET);
  ask(m);
  EXPECT_FALSE(lets({24}));
  command_ = kl::CMD_GET;
  EXPECT_TRUE(lets({24}));
  command_.reset();
  EXPECT_FALSE(lets({24}));
}

TEST_F(TapFilterTest, ErrorsAloneAreAsErrorsSay) {
  kl::message m;
  m.insert(common::tap::ERRORS, true);
  ask(m);
  EXPECT_FALSE(lets({24}));
  EXPECT_TRUE(lets({24}, kl::STATUS_ERROR));
}

TEST_F(TapFilterTest, SlowAreRepliesThatTookAsLong) {
  kl::message m;
  m.insert(common::tap::SLOW, 10);
  ask(m);
  EXPECT_FALSE(lets({24}));
  age_ = 9;
  EXPECT_FALSE(lets({24}));
  age_ = 10;
  EXPECT_TRUE(lets({24}));
}

TEST_F(TapFilterTest, AllWishesTogetherHold) {
  kl::message m;
  m.insert(common::tap::SERVICES, Ids{24});
  m.insert(common::tap::ERRORS, true);
  ask(m);
  EXPECT_FALSE(lets({24}));
  EXPECT_FALSE(lets({25}, kl::STATUS_ERROR));
  EXPECT_TRUE(lets({24}, kl::STATUS_ERROR));
}

TEST_F(TapFilterTest, NoMoreIsShownThanAFrameTakes) {
  kl::message m;
  m.insert(common::tap::BYTES, 0xffffffff);
  ask(m);
  EXPECT_EQ(filter_.contents(), TapFilter::kMostContents);
}

TEST_F(TapFilterTest, TooManyServicesAreRefusedAndChangeNothing) {
  askFor({24});
  kl::message m;
  m.insert(common::tap::SERVICES, Ids(TapFilter::kMostServices + 1, 25));
  EXPECT_NE(filter_.read(m), "");
  EXPECT_TRUE(lets({24}));
  EXPECT_FALSE(lets({25}));
}

// A user who may control the loader chooses the bytes: a field of another type is none, and no wish is left half read.
TEST_F(TapFilterTest, AWishOfAnotherTypeIsNone) {
  kl::message m;
  m.insert(kl::field<std::string>((common::tap::SERVICES & 0xffffff) | 0x20000000), "24");
  m.insert(kl::field<bool>(common::tap::SLOW & 0xffffff), true);
  ask(m);
  EXPECT_TRUE(lets({25}));
}

}  // namespace
