#include <gtest/gtest.h>

#include <csignal>

#include "tests/examples/netif_service.h"
#include "tests/examples/own_network.h"
#include "tests/support/process/running_program.h"

namespace {

// watch_links beside a netif that has a network namespace of its own.
class WatchLinks : public NetifService {
 protected:
  WatchLinks()
      : NetifService("\"/usr/bin/unshare\", \"--map-root-user\", \"--net\", \"" KL_BIN_DIR "/netif\"") {}

  void SetUp() override {
    if (!network::isAllowed()) GTEST_SKIP() << "the kernel refuses a network namespace";
    ASSERT_FALSE(kl::isError(ask(kl::CMD_NOOP)));
    watcher_.emplace(std::vector<std::string>{KL_BIN_DIR "/watch_links"});
    ASSERT_TRUE(watcher_->says(" lo: down, MTU 65536, addresses: 0\n"));
    ASSERT_TRUE(watcher_->says(" that is all of them: "));
  }

  std::optional<kl::test::RunningProgram> watcher_;
};

}  // namespace

TEST_F(WatchLinks, PrintsInterfacesAsTheyComeChangeAndGo) {
  const pid_t netif = pid();
  ASSERT_TRUE(network::addLink("made", netif));
  EXPECT_TRUE(watcher_->says(" made: down, MTU 1500, addresses: 0\n"));
  ASSERT_TRUE(network::ip("addr add 10.1.1.1/24 dev made", netif));
  EXPECT_TRUE(watcher_->says(" made: down, MTU 1500, addresses: 1\n"));
  ASSERT_TRUE(network::ip("link del made", netif));
  EXPECT_TRUE(watcher_->says(" made is gone\n"));
}

TEST_F(WatchLinks, PrintsADescription) {
  EXPECT_FALSE(kl::isError(describe(1, "to itself")));
  EXPECT_TRUE(watcher_->says(" lo: down, MTU 65536, addresses: 0, to itself\n"));
}

// The new netif begins in a namespace of its own, where the interface never was.
TEST_F(WatchLinks, FindsNetifAgainAndTellsWhatIsNoLongerThere) {
  const pid_t netif = pid();
  ASSERT_TRUE(network::addLink("made", netif));
  ASSERT_TRUE(watcher_->says(" made: down"));
  ASSERT_EQ(::kill(netif, SIGKILL), 0);
  EXPECT_TRUE(watcher_->says(" netif is lost"));
  EXPECT_TRUE(watcher_->says(" made is gone\n"));
  EXPECT_TRUE(watcher_->says(" that is all of them: "));
}

TEST_F(WatchLinks, InterruptedItEndsWithStatusZero) { EXPECT_EQ(watcher_->end(SIGINT), 0); }
