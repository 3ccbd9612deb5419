// A process whose loop runs inside another one.

#include <gtest/gtest.h>
#include <poll.h>

#include "kl/embed.h"
#include "tests/lib/looper/fixture.h"

namespace kl {
namespace {

bool hasWork(EmbeddedLoop& loop) {
  pollfd one{loop.descriptor(), POLLIN, 0};
  return ::poll(&one, 1, 0) == 1;
}

TEST(EmbeddedLooper, SaysThatItRunsAnswersAndLeaves) {
  test::Connected net;
  Handler answering;
  test::Recorder recorder;
  net.looper->addHandler(4, &answering);
  net.looper->addHandler(5, &recorder);
  net.looper->setupLeave(1);
  {
    EmbeddedLoop embedded(*net.looper);
    EXPECT_EQ(net.loader.receive().get(SYS_CTRL, 0), CTRL_RUNNING);
    EXPECT_EQ(net.loader.receive().get(SYS_CTRL, 0), CTRL_LEAVE_VALUE);
    EXPECT_FALSE(hasWork(embedded));

    net.loader.send(test::requestTo({4}, CMD_NOOP));
    EXPECT_TRUE(hasWork(embedded));
    EXPECT_TRUE(embedded.pass());
    EXPECT_TRUE(isReply(net.loader.receive()));
    EXPECT_FALSE(hasWork(embedded));

    message own = test::to({PATH_SELF, 5});
    net.looper->sendMessage(own);
    EXPECT_TRUE(embedded.pass());
    EXPECT_EQ(recorder.seen.size(), 1u);

    net.loader.send(test::ctrl(CTRL_LEAVE));
    EXPECT_TRUE(hasWork(embedded));
    EXPECT_FALSE(embedded.pass());
    EXPECT_TRUE(net.looper->isLeaving());
    EXPECT_FALSE(embedded.pass());
  }
  net.looper->removeHandler(4);
  net.looper->removeHandler(5);
}

}  // namespace
}  // namespace kl
