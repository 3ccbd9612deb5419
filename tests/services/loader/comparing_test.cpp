// A configuration, compared with that of the loader that runs.

#include "services/loader/comparing.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "kl/utilities.h"
#include "tests/services/loader/supervision.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/process/child.h"

namespace {

using kl::test::LoaderProcess;
using kl::test::service;

class Comparing : public kl::test::Supervision {
 protected:
  static auto compare(const std::string& configuration,
                      std::vector<std::string> more = {"--against", "running"}) {
    const std::string file = kl::underRoot("/kelo/candidate.toml");
    std::ofstream(file) << configuration;
    std::vector<std::string> words = {KL_BIN_DIR "/kl-loader", "--check", "--config", file};
    words.insert(words.end(), more.begin(), more.end());
    return kl::test::runProgram(words);
  }
};

TEST_F(Comparing, TheSameConfigurationChangesNothing) {
  const LoaderProcess loader(service("echo", 32, "serve"));
  const auto compared = compare("# a comment\n" + service("echo", 32, "serve"));
  EXPECT_EQ(compared.exitStatus, 0);
  EXPECT_EQ(compared.out + compared.err, "");
}

TEST_F(Comparing, EachServiceThatWouldChangeIsALineAndNoneChanges) {
  const std::string same = service("same", 31, "serve");
  const LoaderProcess loader(same + service("echo", 32, "serve") + service("old", 33, "serve") +
                             service("quick", 34, "serve"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32, 3}));
  const kl::message before = row(32);
  const auto compared =
      compare("[loader]\nqueue_limit = 5000\n" + same +
              service("echo", 32, "serve", "memory = 67108864\nrestart = \"never\"") +
              service("new", 35, "serve") + service("quick", 34, "serve", "start_seconds = 3"));
  EXPECT_EQ(compared.exitStatus, 3);
  EXPECT_EQ(compared.out,
            "would add new\n"
            "would remove old\n"
            "would restart echo: memory, restart\n"
            "would change quick without a restart: start_seconds\n"
            "would change loader.queue_limit when the loader starts again\n");
  EXPECT_EQ(compared.err, "");
  EXPECT_EQ(row(32).get(kl::SVC_PID, 0), before.get(kl::SVC_PID, 1));
  EXPECT_EQ(errorOf(ask({35})), kl::ERROR_BRKPATH);
  EXPECT_EQ(loader.log().find("anew"), std::string::npos);
}

TEST_F(Comparing, AProgramThatIsNotThereIsAMistake) {
  const LoaderProcess loader;
  const auto compared = compare("[[service]]\nname = \"echo\"\nid = 32\ncommand = [\"/nowhere/echo\"]\n");
  EXPECT_EQ(compared.exitStatus, 2);
  EXPECT_EQ(compared.out, "");
  EXPECT_EQ(compared.err, "kl-loader: the candidate: echo: command: there is no program '/nowhere/echo'\n");
}

TEST_F(Comparing, MistakesThatNoFrameHoldsAreCut) {
  const LoaderProcess loader;
  connect();
  std::string candidate = "[loader]\ndescriptions = \"/" + std::string(4000, 'x') +
                          "\"\n[[service]]\nname = \"lab\"\nid = 32\n[service.commands]\n";
  for (char name = 'a'; name <= 'p'; ++name) candidate += std::string(1, name) + " = \"read\"\n";
  kl::message asked = kl::test::request({kl::SERVICE_LOADER}, kl::CMD_RELOAD, 1, {7});
  asked.insert(kl::RELOAD_CANDIDATE, candidate);
  ASSERT_TRUE(a_.send(asked));
  const auto reply = a_.receiveReply(1);
  ASSERT_EQ(errorOf(reply), kl::ERROR_FAILED);
  const std::string text = reply->get(kl::SYS_ERRSTR, "");
  EXPECT_EQ(text.size(), 32'768U + 3);
  EXPECT_TRUE(text.ends_with("..."));
}

TEST_F(Comparing, WithoutALoaderItCannotBeTold) {
  const auto compared = compare("");
  EXPECT_EQ(compared.exitStatus, 1);
  EXPECT_EQ(compared.err.find("kl-loader: no loader runs at "), 0u) << compared.err;
}

TEST_F(Comparing, AMistakeInTheFileIsToldByItsLine) {
  const auto compared = compare("[loader]\nqueue_limt = 5000\n");
  EXPECT_EQ(compared.exitStatus, 2);
  EXPECT_NE(compared.err.find("candidate.toml:2: "), std::string::npos) << compared.err;
}

TEST_F(Comparing, NothingElseIsComparedWith) {
  EXPECT_EQ(compare("", {"--against", "walking"}).exitStatus, 2);
  const auto alone = kl::test::runProgram({KL_BIN_DIR "/kl-loader", "--against", "running"});
  EXPECT_EQ(alone.exitStatus, 2);
}

TEST_F(Comparing, AConfigurationThatNoFrameHoldsIsRefused) {
  const LoaderProcess loader;
  const auto compared = compare("#" + std::string(65'400, 'x') + "\n");
  EXPECT_EQ(compared.exitStatus, 1);
  EXPECT_NE(compared.err.find("is too long for one message"), std::string::npos) << compared.err;
}

}  // namespace
