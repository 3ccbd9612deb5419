#include "tools/klctl/verbs/reload.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"

namespace klctl {
namespace {

using Names = std::vector<std::string>;

class Reload : public testing::Test {
 protected:
  std::string run(const std::vector<const char*>& words = {"reload"}) {
    return RecordedChannels([this](const kl::message& m) { return asked_ = m, reply_; })
        .perform(parsed(words));
  }

  kl::message asked_;
  kl::message reply_;
};

TEST_F(Reload, IsAnOrderToTheLoader) {
  reply_.insert(kl::RELOAD_UNCHANGED, 7);
  EXPECT_EQ(run(), "  7 services unchanged\n");
  EXPECT_EQ(asked_.get(kl::SYS_TO, {}), std::vector<unsigned int>{kl::SERVICE_LOADER});
  EXPECT_EQ(asked_.get(kl::SYS_CMD, 0), kl::CMD_RELOAD);
}

TEST_F(Reload, EachServiceThatChangesHasALine) {
  reply_.insert(kl::RELOAD_STARTED, Names{"reports"});
  reply_.insert(kl::RELOAD_ENDED, Names{"old"});
  reply_.insert(kl::RELOAD_RESTARTED, Names{"leases"});
  reply_.insert(kl::RELOAD_ADJUSTED, Names{"[rights]", "netif"});
  reply_.insert(kl::RELOAD_LATER, Names{"quota"});
  reply_.insert(kl::RELOAD_UNCHANGED, 1);
  EXPECT_EQ(run(),
            "+ reports   started\n"
            "- old       ended\n"
            "~ leases    restarted\n"
            "~ [rights]  changed without a restart\n"
            "~ netif     changed without a restart\n"
            "  1 service unchanged\n"
            "quota changes when the loader starts again\n");
}

TEST_F(Reload, TheKeysThatChangedAreNamed) {
  reply_.insert(kl::RELOAD_RESTARTED, Names{"leases"});
  reply_.insert(kl::RELOAD_RESTARTED_KEYS, Names{"memory, folder"});
  reply_.insert(kl::RELOAD_ADJUSTED, Names{"[rights]", "netif"});
  reply_.insert(kl::RELOAD_ADJUSTED_KEYS, Names{"", "access"});
  EXPECT_EQ(run(),
            "~ leases    restarted: memory, folder\n"
            "~ [rights]  changed without a restart\n"
            "~ netif     changed without a restart: access\n"
            "  0 services unchanged\n");
}

TEST_F(Reload, HostileNamesDoNotReachTheTerminal) {
  reply_.insert(kl::RELOAD_STARTED, Names{"a\x1b[2Jb"});
  reply_.insert(kl::RELOAD_LATER, Names{"c\x1b]0;d"});
  EXPECT_EQ(run().find('\x1b'), std::string::npos);
}

TEST_F(Reload, JsonHasTheFieldsByName) {
  reply_.insert(kl::RELOAD_STARTED, Names{"reports"});
  reply_.insert(kl::RELOAD_UNCHANGED, 2);
  const std::string json = run({"reload", "--json"});
  EXPECT_NE(json.find("\"started\""), std::string::npos) << json;
  EXPECT_NE(json.find("\"unchanged\": 2"), std::string::npos) << json;
}

TEST_F(Reload, MistakesAreShownOneALine) {
  reply_ = kl::errorMsg(kl::ERROR_FAILED, "f.toml:2: expected a\nf.toml:9: expected b");
  RecordedChannels channels([this](const kl::message&) { return reply_; });
  const auto [status, text] = failureOf([&] { (void)channels.perform(parsed({"reload"})); });
  EXPECT_EQ(status, 1);
  EXPECT_EQ(text, "the configuration stays as it is");
  EXPECT_EQ(channels.remarked, "f.toml:2: expected a\nf.toml:9: expected b\n");
}

TEST_F(Reload, ALoaderThatCannotDoItSaysSo) {
  reply_ = kl::errorMsg(kl::ERROR_NOTIMP, "");
  const auto [status, text] = failureOf([this] { (void)run(); });
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(text.starts_with("loader: ")) << text;
}

}  // namespace
}  // namespace klctl
