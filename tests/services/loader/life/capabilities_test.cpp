// Seen by a program that is started with them.

#include "services/loader/life/capabilities.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "services/loader/life/process.h"
#include "tests/support/build/effort.h"
#include "tests/support/process/child.h"

namespace {

constexpr uid_t kOtherUser = 65534;
constexpr loader::Capabilities kBindAndAdmin = 1U << 10 | 1U << 12;

class CapabilitiesTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can start a process as another user";
    if (kl::test::kEmulated) GTEST_SKIP() << "the emulator has capabilities of its own";
    configuration_.name = "x";
    configuration_.uid = kOtherUser;
    configuration_.groups = {kOtherUser};
  }

  // The five sets as /proc shows them, with the least digits: inheritable, permitted, effective, bounding, ambient.
  std::string setsOfService() {
    configuration_.command = {"/bin/sed", "-n", "s/^Cap...:\t0*//p", "/proc/self/status"};
    return kl::test::runInChild([this] {
             const pid_t pid = loader::startProcess(configuration_, ::dup(STDERR_FILENO));
             ::_exit(pid > 0 && ::waitpid(pid, nullptr, 0) == pid ? 0 : 1);
           })
        .out;
  }

  loader::ServiceConfiguration configuration_;
};

TEST_F(CapabilitiesTest, AnotherUserThanRootHasNone) {
  configuration_.user = "nobody of this system";
  EXPECT_EQ(setsOfService(), "\n\n\n\n\n");
}

TEST_F(CapabilitiesTest, AnotherUserHasThoseThatAreListedAndNoMore) {
  configuration_.user = "nobody of this system";
  configuration_.limits.capabilities = kBindAndAdmin;
  EXPECT_EQ(setsOfService(), "1400\n1400\n1400\n1400\n1400\n");
}

TEST_F(CapabilitiesTest, RootHasThoseOfTheLoaderUnlessSomeAreListed) {
  const std::string own =
      kl::test::runProgram({"/bin/sed", "-n", "s/^Cap...:\t0*//p", "/proc/self/status"}).out;
  EXPECT_EQ(setsOfService(), own);
  configuration_.limits.capabilities = kBindAndAdmin;
  EXPECT_EQ(setsOfService(), "1400\n1400\n1400\n1400\n1400\n");
  configuration_.limits.capabilities = 0;
  EXPECT_EQ(setsOfService(), "\n\n\n\n\n");
}

TEST_F(CapabilitiesTest, WithNewPrivilegesTheBoundHolds) {
  configuration_.limits.capabilities = kBindAndAdmin;
  configuration_.limits.mayGainPrivileges = true;
  EXPECT_EQ(setsOfService(), "1400\n1400\n1400\n1400\n1400\n");
}

}  // namespace
