#include "services/loader/config/decision.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using loader::Configuration;
using loader::Decision;
using loader::Rights;

constexpr uid_t kDaemon = 1;  // its primary group is daemon
constexpr uid_t kBin = 2;     // bin
constexpr uid_t kSys = 3;     // sys
constexpr uid_t kStranger = 7003;

class DecisionTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() >= kDaemon && ::geteuid() <= kSys) GTEST_SKIP() << "this user may do everything";
  }

  static Configuration read(const std::string& text) {
    common::Mistakes mistakes;
    Configuration c = loader::parseConfiguration(text, "f", mistakes);
    for (const auto& mistake : mistakes) ADD_FAILURE() << mistake.describe();
    return c;
  }

  static std::string textOf(const Decision& decision) {
    std::string text = wordsOf(decision.rights) + " by " + decision.rule.table + " " + decision.rule.key +
                       " " + std::to_string(decision.rule.line) + ", not";
    for (const auto& rule : decision.passed) text += " " + std::to_string(rule.line);
    return text;
  }

  const Configuration configuration_ = read(R"([loader]
access = { default = "none" }
[rights]
default = ["read", "change"]
"@sys" = "none"
"@daemon" = "control"
bin = "contents"
[[service]]
name = "log"
id = 23
[service.access]
"@sys" = "contents"
"@bin" = "read"
bin = "none"
[[service]]
name = "open"
id = 24
access = { default = "all" }
[[service]]
name = "limited"
id = 40
user = "daemon"
rights = ["read", "contents"]
)");
};

TEST_F(DecisionTest, AccessComesBeforeRightsAndUsersBeforeGroupsBeforeTheDefault) {
  const struct {
    uid_t uid;
    unsigned int destination;
    const char* decision;
  } rows[] = {
      {kBin, 23, "none by access of log bin 14, not"},
      {kSys, 23, "contents by access of log @sys 12, not 14"},
      {kDaemon, 23, "control by rights @daemon 6, not 14 12 13 7 5"},
      {kStranger, 23, "read and change by rights default 4, not 14 12 13 7 5 6"},
      {kBin, 40, "contents by rights bin 7, not"},
      {kSys, 40, "none by rights @sys 5, not 7"},
      {kStranger, 40, "read and change by rights default 4, not 7 5 6"},
      {kBin, 24, "all by access of open default 18, not"},
      {kDaemon, kl::SERVICE_LOADER, "none by access of loader default 2, not"},
      {kDaemon, 999, "control by rights @daemon 6, not 7 5"},
      {0, 23, "all by built in root 0, not"},
      {0, kl::SERVICE_LOADER, "all by built in root 0, not"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(textOf(explain(configuration_, {row.uid}, row.destination)), row.decision)
        << row.uid << " at " << row.destination;
}

TEST_F(DecisionTest, WithoutAConfigurationEverybodyReadsAndNobodyReadsContents) {
  const Configuration builtIn = loader::defaultConfiguration();
  EXPECT_EQ(textOf(explain(builtIn, {kStranger}, 23)), "read by built in default 0, not");
  EXPECT_EQ(explain(builtIn, {kStranger}, kl::SERVICE_LOADER).rights, Rights::of(kl::RIGHT_READ));
  EXPECT_TRUE(explain(builtIn, {::geteuid()}, 23).rights.all);
}

TEST_F(DecisionTest, RightsOfAServiceStandInThePlaceOfThoseOfItsUser) {
  const loader::Sender limited{kDaemon, configuration_.find(40)};
  EXPECT_EQ(textOf(explain(configuration_, limited, 999)),
            "read and contents by rights of limited rights 23, not");
  EXPECT_EQ(textOf(explain(configuration_, limited, 24)), "all by access of open default 18, not");
  EXPECT_TRUE(explain(configuration_, {0, configuration_.find(40)}, 999).rights.all);
}

}  // namespace
