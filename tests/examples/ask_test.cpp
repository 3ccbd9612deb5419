#include <gtest/gtest.h>

#include <csignal>

#include "kl/looper.h"
#include "kl/services.h"
#include "tests/examples/kernel_view.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/process/child.h"

namespace {

using kl::test::ChildResult;
using kl::test::LoaderProcess;
using kl::test::runProgram;

constexpr char kNetif[] = "[[service]]\nname = \"netif\"\ncommand = [\"" KL_BIN_DIR "/netif\"]\n";

ChildResult ask() { return runProgram({KL_BIN_DIR "/ask"}); }

pid_t pidOf(unsigned int service) {
  kl::Looper client(kl::Looper::kConnect);
  kl::message m;
  m.insert(kl::SYS_TO, {service});
  EXPECT_FALSE(kl::isError(client.exchangeCmd(m, kl::CMD_NOOP, 2000)));  // it has registered
  kl::message question;
  question.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  question.insert(kl::STD_ID, service);
  return static_cast<pid_t>(client.exchangeCmd(question, kl::CMD_GETOBJ, 2000).get(kl::SVC_PID, 0));
}

}  // namespace

TEST(Ask, ShowsEveryInterfaceTwiceAndEnds) {
  const LoaderProcess loader(kNetif);
  const ChildResult result = ask();
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.err, "");
  for (const auto& [index, name] : kernel::names()) {
    const bool up = (kernel::sysNumber(name, "flags") & IFF_UP) != 0;
    const std::string waited = name + ": " + (up ? "up" : "down") + ", MTU " +
                               std::to_string(kernel::sysNumber(name, "mtu")) +
                               ", IPv6 addresses: " + std::to_string(kernel::addresses(name).size()) + "\n";
    EXPECT_NE(result.out.find(waited), std::string::npos) << waited << "is missing in\n" << result.out;
    EXPECT_NE(result.out.find("interface " + std::to_string(index) + ": "), std::string::npos) << result.out;
  }
}

TEST(Ask, WithoutNetifItIsToldOfABrokenPath) {
  const LoaderProcess loader;
  const ChildResult result = ask();
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.out, "netif: std failure: broken path (2)\n");
}

TEST(Ask, ANetifThatDoesNotAnswerIsATimeout) {
  const LoaderProcess loader(kNetif);
  const pid_t netif = pidOf(32);
  ASSERT_EQ(::kill(netif, SIGSTOP), 0);
  const ChildResult result = ask();
  (void)::kill(netif, SIGCONT);
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.out, "netif: std failure: timeout (13)\n");
}

TEST(Ask, WithoutALoaderItEndsWithTheLibrarysLine) {
  const ChildResult result = ask();
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find("connect failed"), std::string::npos) << result.err;
}
