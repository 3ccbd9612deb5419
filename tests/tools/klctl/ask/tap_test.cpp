#include "tools/klctl/ask/tap.h"

#include <gtest/gtest.h>

#include "services/common/tap.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"
#include "tools/klctl/ask/events.h"
#include "tools/klctl/ask/session.h"

namespace klctl {
namespace {

namespace tap = common::tap;
constexpr auto kAmple = std::chrono::seconds(20);

struct TapJob : testing::Test {
  static kl::message request() {
    kl::message m;
    m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
    return m;
  }
  static Event next(StreamSession& stream) {
    kl::message m;
    EXPECT_EQ(stream.next(m), StreamSession::kArrived);
    return eventOf(m);
  }

  kl::test::LoaderProcess loader{""};
};

}  // namespace

TEST_F(TapJob, FirstItSaysThatTheTapIsThereThenWhatItShows) {
  kl::test::RawPeer peer = kl::test::RawPeer::registered(500);
  StreamSession stream(kAmple, tapJob(request(), ticksOf(kAmple)));
  EXPECT_EQ(next(stream).kind, EventKind::kComplete);
  ASSERT_TRUE(peer.send(kl::test::request({kl::SERVICE_LOADER}, kl::CMD_NOOP, 5, {7})));
  const Event shown = next(stream);
  EXPECT_EQ(shown.kind, EventKind::kObject);
  EXPECT_EQ(kl::message(shown.content).get(tap::SENDER, 0), 500u);
}

TEST_F(TapJob, WhyThereIsNoTapIsAnEvent) {
  kl::message m = request();
  m.insert(tap::SERVICES, std::vector<unsigned int>(65, 1));
  StreamSession stream(kAmple, tapJob(m, ticksOf(kAmple)));
  const Event refusal = next(stream);
  EXPECT_EQ(refusal.kind, EventKind::kLost);
  EXPECT_TRUE(kl::isError(kl::message(refusal.content)));
}

}  // namespace klctl
