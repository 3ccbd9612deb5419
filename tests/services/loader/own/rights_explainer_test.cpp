#include "services/loader/own/rights_explainer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "kl/rights.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using common::Mistakes;
using loader::Configuration;
using loader::RightsExplainer;
using loader::Service;
using loader::ServiceTable;

constexpr uid_t kDaemon = 1;
constexpr uid_t kBin = 2;

constexpr char kFile[] = "/etc/kl/kl-loader.toml";
constexpr char kText[] =
    "[rights]\n"                                      // 1
    "default = \"read\"\n"                            // 2
    "daemon = [\"read\", \"change\", \"control\"]\n"  // 3
    "[[service]]\n"                                   // 4
    "name = \"lamp\"\n"                               // 5
    "id = 500\n"                                      // 6
    "access = { daemon = \"none\" }\n"                // 7
    "[[service]]\n"                                   // 8
    "name = \"shop\"\n"                               // 9
    "id = 501\n"                                      // 10
    "user = \"bin\"\n"                                // 11
    "rights = [\"read\", \"change\"]\n"               // 12
    "commands = { \"0x42\" = \"change\" }\n";         // 13

class RightsExplainerTest : public testing::Test {
 protected:
  RightsExplainerTest() {
    Mistakes mistakes;
    configuration_ = loader::parseConfiguration(kText, kFile, mistakes);
    EXPECT_TRUE(mistakes.empty());
  }

  Service& add(unsigned int id, uid_t uid) {
    Service& service = connected(table_, id);
    service.uid = uid;
    service.user = configuration_.users.nameOf(uid);
    return service;
  }

  static kl::message question(const std::string& user, const Ids& to) {
    kl::message m;
    if (!user.empty()) m.insert(kl::RIGHTS_USER, user);
    m.insert(kl::RIGHTS_TO, to);
    return m;
  }
  static kl::message question(const std::string& user, const Ids& to, unsigned int command) {
    kl::message m = question(user, to);
    m.insert(kl::RIGHTS_COMMAND, command);
    return m;
  }

  // The answer that root gets.
  kl::message explain(const kl::message& m) { return explainer_.explain(root_, m); }

  // The question as the loader gets it from an ordinary user.
  static kl::message by(const std::string& user, unsigned int bits, kl::message m) {
    m.insert(kl::SYS_USER, user);
    m.insert(kl::SYS_POLICY, bits);
    return m;
  }

  static unsigned int verdictOf(const kl::message& answer) { return answer.get(kl::RIGHTS_VERDICT, 0); }
  static kl::message ruleOf(const kl::message& answer) { return {answer.get(kl::RIGHTS_RULE, {})}; }
  static std::string ruleText(const kl::message& rule) {
    return rule.get(kl::RULE_TABLE, "") + "|" + rule.get(kl::RULE_KEY, "") + "|" +
           std::to_string(rule.get(kl::RULE_LINE, 0)) + "|" + rule.get(kl::RULE_RIGHTS, "");
  }

  Configuration configuration_;
  ServiceTable table_;
  RightsExplainer explainer_{configuration_, table_};
  Service& root_ = add(0x10000, ::geteuid());
  Service& daemon_ = add(0x10001, kDaemon);
  Service& shop_ = add(501, kBin);
};

TEST_F(RightsExplainerTest, TheLineThatDecidedIsNamed) {
  const kl::message answer = explain(question("daemon", {24}, kl::CMD_SET));
  EXPECT_EQ(verdictOf(answer), kl::RIGHTS_OPEN);  // 24 decides itself, by these bits
  EXPECT_EQ(answer.get(kl::RIGHTS_BITS, 0), kl::RIGHT_READ | kl::RIGHT_CHANGE | kl::RIGHT_CONTROL);
  EXPECT_EQ(answer.get(kl::RIGHTS_USER, ""), "daemon");
  EXPECT_EQ(answer.get(kl::RIGHTS_FILE, ""), kFile);
  EXPECT_EQ(ruleText(ruleOf(answer)), "rights|daemon|3|read and change and control");
  EXPECT_FALSE(answer.has(kl::RIGHTS_NEEDED));
}

TEST_F(RightsExplainerTest, TheEntriesBeforeItAreNamedToo) {
  const kl::message answer = explain(question("nobody", {500}));
  EXPECT_EQ(ruleText(ruleOf(answer)), "rights|default|2|read");
  std::vector<std::string> passed;
  for (const kl::message rule : answer.get(kl::RIGHTS_PASSED, {})) passed.push_back(ruleText(rule));
  EXPECT_EQ(passed, (std::vector<std::string>{"access of lamp|daemon|7|none",
                                              "rights|daemon|3|read and change and control"}));
}

TEST_F(RightsExplainerTest, WithoutRightsNothingIsDelivered) {
  for (const kl::message& m : {question("daemon", {500}), question("daemon", {500, 3}, kl::CMD_GET)}) {
    const kl::message answer = explain(m);
    EXPECT_EQ(verdictOf(answer), kl::RIGHTS_DENIED);
    EXPECT_EQ(answer.get(kl::RIGHTS_BITS, 1), 0u);
    EXPECT_EQ(ruleText(ruleOf(answer)), "access of lamp|daemon|7|none");
  }
}

TEST_F(RightsExplainerTest, AListedCommandNeedsWhatTheListSays) {
  const kl::message allowed = explain(question("daemon", {501}, 0x42));
  EXPECT_EQ(verdictOf(allowed), kl::RIGHTS_ALLOWED);
  EXPECT_EQ(allowed.get(kl::RIGHTS_NEEDED, 0), kl::RIGHT_CHANGE);
  const kl::message denied = explain(question("nobody", {501}, 0x42));
  EXPECT_EQ(verdictOf(denied), kl::RIGHTS_DENIED);
  EXPECT_EQ(denied.get(kl::RIGHTS_BITS, 0), kl::RIGHT_READ);
  const kl::message unlisted = explain(question("daemon", {501}, 0x43));
  EXPECT_EQ(verdictOf(unlisted), kl::RIGHTS_DENIED);
  EXPECT_EQ(unlisted.get(kl::RIGHTS_NEEDED, 0), kl::RIGHT_OF_NOBODY);
}

TEST_F(RightsExplainerTest, RootMayDoEverything) {
  const kl::message answer = explain(question("root", {501}, 0x43));
  EXPECT_EQ(verdictOf(answer), kl::RIGHTS_ALLOWED);
  EXPECT_FALSE(answer.has(kl::RIGHTS_BITS));
  EXPECT_EQ(ruleText(ruleOf(answer)), "built in|root|0|all");
}

TEST_F(RightsExplainerTest, WithoutAUserTheCallersOwnRequestsAreExplained) {
  const kl::message answer = explainer_.explain(daemon_, by("daemon", 64, question("", {24})));
  EXPECT_EQ(answer.get(kl::RIGHTS_USER, ""), "daemon");
  EXPECT_EQ(ruleOf(answer).get(kl::RULE_KEY, ""), "daemon");
}

TEST_F(RightsExplainerTest, WhoMayNotControlAsksAboutHimselfOnly) {
  const auto ask = [&](const std::string& user, unsigned int bits) {
    return errorOf(explainer_.explain(daemon_, by("daemon", bits, question(user, {24}))));
  };
  EXPECT_EQ(ask("daemon", 64), kl::ERROR_OK);
  EXPECT_EQ(ask("nobody", 64 | 128 | 1024), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(ask("root", 64), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(ask("nobody", 64 | 512), kl::ERROR_OK);
  kl::message m = by("daemon", 64, question("daemon", {24}));
  m.insert(kl::RIGHTS_SENDER, 501);
  EXPECT_EQ(errorOf(explainer_.explain(daemon_, m)), kl::ERROR_NOTALLOWED);
}

TEST_F(RightsExplainerTest, AServiceHasTheRightsOfItsOwnKey) {
  kl::message m = question("bin", {24});
  EXPECT_EQ(explain(m).get(kl::RIGHTS_BITS, 0), kl::RIGHT_READ);  // the user, sending by himself
  m.insert(kl::RIGHTS_SENDER, 501);
  const kl::message answer = explain(m);
  EXPECT_EQ(answer.get(kl::RIGHTS_BITS, 0), kl::RIGHT_READ | kl::RIGHT_CHANGE);
  EXPECT_EQ(ruleText(ruleOf(answer)), "rights of shop|rights|12|read and change");
}

TEST_F(RightsExplainerTest, AServiceThatDoesNotRunHasTheRightsThatItWillHave) {
  Service& shop = *table_.find(501);
  shop.disconnect();
  shop.uid = 0;
  kl::message m = question("bin", {24});
  m.insert(kl::RIGHTS_SENDER, 501);
  const kl::message answer = explain(m);
  EXPECT_EQ(answer.get(kl::RIGHTS_BITS, 0), kl::RIGHT_READ | kl::RIGHT_CHANGE);
  EXPECT_EQ(ruleText(ruleOf(answer)), "rights of shop|rights|12|read and change");
}

TEST_F(RightsExplainerTest, WhoIsSpokenForHasNoMoreThanHisRequestCarried) {
  kl::message m = question("daemon", {24}, kl::CMD_SET);
  m.insert(kl::RIGHTS_SENDER, 501);  // a process of another user
  m.insert(kl::RIGHTS_BITS, 64 | 1024);
  EXPECT_EQ(explain(m).get(kl::RIGHTS_BITS, 0), 64u);
  m.insert(kl::RIGHTS_SENDER, daemon_.id);  // his own
  EXPECT_EQ(explain(m).get(kl::RIGHTS_BITS, 0), 64u | 128u | 512u);
  m.insert(kl::RIGHTS_USER, "root");
  m.insert(kl::RIGHTS_SENDER, root_.id);  // root says what it wants to have
  EXPECT_EQ(explain(m).get(kl::RIGHTS_BITS, 0), 64u | 1024u);
}

TEST_F(RightsExplainerTest, AUserWhomNobodyKnowsIsUnknown) {
  EXPECT_EQ(errorOf(explain(question("nobody-at-all", {24}))), kl::ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(explain(question("daemon", {}))), kl::ERROR_MISSING);
}

TEST_F(RightsExplainerTest, AUserWithoutANameIsCalledByHisNumber) {
  EXPECT_EQ(verdictOf(explain(question("4000000", {24}))), kl::RIGHTS_OPEN);
  EXPECT_EQ(errorOf(explain(question("1", {24}))), kl::ERROR_UNKNOWNID);  // that is daemon, who has a name
  EXPECT_EQ(errorOf(explain(question("99999999999", {24}))), kl::ERROR_UNKNOWNID);
}

TEST_F(RightsExplainerTest, TheListHasTheEntriesInTheOrderOfAsking) {
  const auto list = [&](const kl::message& m) {
    std::vector<std::string> rules;
    for (const kl::message rule : explainer_.list(m).get(kl::STD_OBJS, {})) rules.push_back(ruleText(rule));
    return rules;
  };
  const std::vector<std::string> all = {
      "access of lamp|daemon|7|none", "rights of shop|rights|12|read and change",
      "rights|daemon|3|read and change and control", "rights|default|2|read"};
  EXPECT_EQ(list({}), all);
  kl::message ofShop;
  ofShop.insert(kl::STD_ID, 501);
  EXPECT_EQ(list(ofShop), std::vector<std::string>(all.begin() + 1, all.end()));
}

TEST_F(RightsExplainerTest, ALongListComesInParts) {
  std::string text = "[[service]]\nname = \"lamp\"\nid = 500\n";
  for (int i = 0; i < 1000; ++i)
    text += "[[service]]\nname = \"s" + std::to_string(i) + "\"\nid = " + std::to_string(1000 + i) +
            "\naccess = { default = \"read\" }\n";
  Mistakes mistakes;
  configuration_ = loader::parseConfiguration(text, kFile, mistakes);
  ASSERT_TRUE(mistakes.empty());
  std::size_t rules = 0;
  int parts = 0;
  for (kl::message m;; ++parts) {
    const kl::message part = explainer_.list(m);
    for (const auto& rule : part.get(kl::STD_OBJS, {})) rules += rule.empty() ? 0 : 1;
    if (!part.has(kl::STD_GETALLID)) break;
    m.insert(kl::STD_GETALLID, part.get(kl::STD_GETALLID, 0));
  }
  EXPECT_EQ(rules, 1000u);
  EXPECT_GE(parts, 1);
}

}  // namespace
