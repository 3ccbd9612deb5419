#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/process/child_process.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tests/tools/klctl/waiting_services.h"
#include "tools/klctl/values/json.h"
#include "tools/klctl/verbs/requests.h"

namespace klctl {
namespace {

class Stuck : public testing::Test {
 protected:
  Stuck() {
    const auto self = static_cast<unsigned int>(::getpid());
    loader_.add(28, "web", self);
    loader_.add(32, "netif", self);
    loader_.add(300, "leases", self);
  }

  std::string run(std::vector<const char*> words = {"stuck"}, bool isTerminal = false) {
    RecordedChannels channels([this](const kl::message& m) { return loader_.answer(m); }, isTerminal);
    status_ = 0;
    try {
      printed_ = channels.perform(parsed(words));
    } catch (const Failure& failure) {
      status_ = static_cast<int>(failure.status());
      printed_ = channels.printed;
    }
    remarked_ = channels.remarked;
    return printed_;
  }
  static std::string self() { return "pid " + std::to_string(::getpid()) + ")"; }

  WaitingServices loader_;
  std::string printed_;
  std::string remarked_;
  int status_ = -1;
};

TEST_F(Stuck, NothingIsSaidOnATerminalAndIsStatusZero) {
  EXPECT_EQ(run({"stuck"}, true), "");
  EXPECT_EQ(remarked_, "nothing is stuck\n");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(run(), "");
  EXPECT_EQ(remarked_, "");
}

TEST_F(Stuck, WhoDoesNotAnswerIsNamedWithWhatItDoes) {
  loader_.wait(28, 300, 4200);
  loader_.wait(32, 300, 700);
  EXPECT_EQ(run(), "leases (300, " + self() +
                       " has not answered for 4.2 s: CMD_GETALL of web (28), 1 more wait; it runs\n");
  EXPECT_EQ(status_, 1);
}

TEST_F(Stuck, TheCulpritStandsAtTheEndOfTheChain) {
  loader_.wait(28, 32, 5000);
  loader_.wait(32, 300, 4900, kl::CMD_GET);
  EXPECT_TRUE(
      run().starts_with("leases (300, " + self() + " has not answered for 4.9 s: CMD_GET of netif (32)"))
      << printed_;
  EXPECT_EQ(printed_.find("web"), std::string::npos);
}

TEST_F(Stuck, ARequestThatHasJustBeenMadeIsNoLinkOfAChain) {
  loader_.wait(28, 32, 5000);
  loader_.wait(32, 300, 3, kl::CMD_GET);
  EXPECT_TRUE(run().starts_with("netif (32, ")) << printed_;
}

TEST_F(Stuck, WhoAnswersIsNotStuck) {
  loader_.setAlive(300);
  loader_.wait(28, 300, 4200);
  EXPECT_EQ(run(), "");
  EXPECT_EQ(status_, 0);
}

TEST_F(Stuck, WhoAnswersOthersMayHaveForgottenARequest) {
  loader_.setAlive(300);
  loader_.wait(28, 300, 14'200);
  EXPECT_EQ(run(), "leases (300, " + self() +
                       " has not answered for 14.2 s: CMD_GETALL of web (28); it answers others\n");
  EXPECT_EQ(status_, 0);
}

TEST_F(Stuck, WhoLetsManyWaitMayHaveForgottenThemSooner) {
  loader_.setAlive(300);
  for (unsigned int i = 0; i < 15; ++i) loader_.wait(28, 300, 700);
  EXPECT_EQ(run(), "");
  loader_.wait(28, 300, 600);
  EXPECT_EQ(run(),
            "leases (300, " + self() +
                " has not answered for 700 ms: CMD_GETALL of web (28), 15 more wait; it answers others\n");
  EXPECT_EQ(status_, 0);
}

TEST_F(Stuck, ACircleIsNamedOnceWithAllItsMembers) {
  loader_.wait(300, 32, 3000, kl::CMD_GET);
  loader_.wait(32, 300, 2900);
  loader_.wait(28, 32, 2000);
  EXPECT_EQ(run(), "a circle: netif (32, " + self() + " waits for leases (CMD_GETALL, 2.9 s), leases (300, " +
                       self() + " waits for netif (CMD_GET, 3.0 s)\n");
  EXPECT_EQ(status_, 1);
}

TEST_F(Stuck, ACircleInWhichSomebodyAnswersIsNone) {
  loader_.setAlive(32);
  loader_.wait(300, 32, 3000, kl::CMD_GET);
  loader_.wait(32, 300, 2900);
  EXPECT_EQ(run(), "");
  EXPECT_EQ(status_, 0);
}

TEST_F(Stuck, AServiceMayWaitForItself) {
  loader_.wait(300, 300, 3000, kl::CMD_GET);
  EXPECT_TRUE(run().starts_with("a circle: leases (300, ")) << printed_;
}

TEST_F(Stuck, AStoppedProcessIsNotAsked) {
  const kl::test::ChildProcess child([] { (void)::raise(SIGSTOP); });
  ASSERT_TRUE(child.stops());
  loader_.add(40, "lab", static_cast<unsigned int>(child.pid()));
  loader_.setAlive(40);
  loader_.wait(28, 40, 3000);
  EXPECT_NE(run().find("; it is stopped\n"), std::string::npos) << printed_;
  EXPECT_EQ(status_, 1);
}

TEST_F(Stuck, OneThatIsNotThereDoesNotRun) {
  loader_.add(41, "absent");
  loader_.wait(28, 41, 3000);
  EXPECT_NE(run().find("; it does not run\n"), std::string::npos) << printed_;
}

TEST_F(Stuck, ProgramsGetJson) {
  loader_.wait(28, 300, 4200);
  const Json all = Json::parse(run({"stuck", "--json"}));
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(all[0]["service"], "leases");
  EXPECT_EQ(all[0]["stuck"], true);
  EXPECT_EQ(all[0]["asker_id"], 28);
  EXPECT_EQ(all[0]["waiting"], 1);
  EXPECT_EQ(all[0]["does"], "runs");
}

TEST_F(Stuck, HostileNamesDoNotReachTheTerminal) {
  loader_.add(66, "a\x1b[2Jb");
  loader_.wait(66, 66, 3000);
  EXPECT_EQ(run().find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace klctl
