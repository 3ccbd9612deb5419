#include "tools/klctl/verbs/rights.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "kl/looper.h"
#include "kl/rights.h"
#include "tests/support/builders.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

using kl::test::flat;
using Ids = std::vector<unsigned int>;

kl::message rule(const std::string& table, const std::string& key, unsigned int line,
                 const std::string& rights) {
  kl::message m;
  m.insert(kl::RULE_TABLE, table);
  m.insert(kl::RULE_KEY, key);
  if (line != 0) m.insert(kl::RULE_LINE, line);
  m.insert(kl::RULE_RIGHTS, rights);
  return m;
}

// A loader whose configuration gives guest "read", and a service with the table of the library.
class KlctlRights : public testing::Test {
 protected:
  KlctlRights() {
    explained_.insert(kl::RIGHTS_VERDICT, kl::RIGHTS_OPEN);
    explained_.insert(kl::RIGHTS_BITS, kl::RIGHT_READ);
    explained_.insert(kl::RIGHTS_FILE, "/etc/kl/kl-loader.toml");
    explained_.insert(kl::RIGHTS_RULE, flat(rule("rights", "default", 12, "read")));
    explained_.insert(kl::RIGHTS_PASSED, {flat(rule("rights", "@operators", 14, "read and change"))});
  }

  // Performs the verb; what it printed is kept, whether it fails or not.
  std::string run(std::vector<const char*> words) {
    const std::string dictionaries = std::string(KL_SOURCE_DIR) + "/tools/fields";
    words.insert(words.begin(), {"--fields", dictionaries.c_str(), "rights"});
    RecordedChannels channels([this](const kl::message& m) { return answer(m); });
    try {
      printed_ = channels.perform(parsed(words));
    } catch (const Failure& failure) {
      told_ = failure.what();
      status_ = static_cast<int>(failure.status());
      return channels.printed;
    }
    status_ = 0;
    return printed_;
  }

  std::string explain(const char* command = nullptr) {
    if (command == nullptr) return run({"explain", "guest", "leases"});
    return run({"explain", "guest", "leases", command});
  }

  kl::message answer(const kl::message& request) {
    const unsigned int command = request.get(kl::SYS_CMD, 0);
    if (command == kl::CMD_GETALL) return services();
    if (command == kl::CMD_GETPOLICIES) {
      asked_ = request;
      return handlersFault_ == 0 ? kl::policies().get_policies(request) : kl::errorMsg(handlersFault_, "");
    }
    asked1_ = request;
    return explained_;
  }

  static kl::message services() {
    kl::message leases;
    leases.insert(kl::STD_ID, 300);
    leases.insert(kl::SVC_NAME, "leases");
    kl::message m;
    m.insert(kl::STD_OBJS, {flat(leases)});
    return m;
  }

  kl::message explained_;  // the loader's answer
  unsigned int handlersFault_ = 0;
  kl::message asked1_;  // the last request to the loader
  kl::message asked_;   // the last request to the handler
  std::string printed_;
  std::string told_;
  int status_ = -1;
};

}  // namespace

TEST_F(KlctlRights, WhatIsAllowedIsStatusZero) {
  EXPECT_EQ(
      explain("CMD_GETALL"),
      "yes: guest has \"read\" (64) for leases, CMD_GETALL needs \"read\" (64)\n"
      "  decided by  /etc/kl/kl-loader.toml:12  rights: default = \"read\"\n"
      "  needed by   the table of the handler\n"
      "  near        /etc/kl/kl-loader.toml:14  rights: \"@operators\" = [\"read\", \"change\"]  guest is "
      "not in operators\n"
      "  but         the handler may have rules of its own, which nobody can ask for\n");
  EXPECT_EQ(status_, 0);
}

TEST_F(KlctlRights, WhatIsNotAllowedIsStatusOne) {
  const std::string text = explain("CMD_REMOVEOBJ");
  EXPECT_TRUE(
      text.starts_with("no: guest has \"read\" (64) for leases, CMD_REMOVEOBJ needs \"change\" (128)\n"))
      << text;
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(told_, "not allowed");
}

TEST_F(KlctlRights, TheLoaderAndTheHandlerAreAskedAboutThatUser) {
  (void)explain("CMD_GETALL");
  EXPECT_EQ(asked1_.get(kl::RIGHTS_USER, ""), "guest");
  EXPECT_EQ(asked1_.get(kl::RIGHTS_TO, {}), Ids{300});
  EXPECT_EQ(asked1_.get(kl::RIGHTS_COMMAND, 0), kl::CMD_GETALL);
  EXPECT_EQ(asked_.get(kl::SYS_TO, {}), Ids{300});
  EXPECT_EQ(asked_.get(kl::SYS_USER, ""), "guest");
  EXPECT_EQ(asked_.get(kl::SYS_POLICY, 0), kl::RIGHT_READ);
}

TEST_F(KlctlRights, AServiceMayBeTheSender) {
  (void)explain("CMD_GETALL");
  EXPECT_FALSE(asked1_.has(kl::RIGHTS_SENDER));
  (void)run({"explain", "--sender", "leases", "guest", "loader", "CMD_GETALL"});
  EXPECT_EQ(asked1_.get(kl::RIGHTS_SENDER, 0), 300u);
  EXPECT_EQ(asked1_.get(kl::RIGHTS_USER, ""), "guest");
  EXPECT_EQ(asked1_.get(kl::RIGHTS_TO, {}), Ids{1});
}

TEST_F(KlctlRights, AHandlerIsPartOfThePath) {
  (void)run({"explain", "guest", "leases/3/4", "getall"});
  EXPECT_EQ(asked1_.get(kl::RIGHTS_TO, {}), (Ids{300, 3, 4}));
  EXPECT_EQ(asked_.get(kl::SYS_TO, {}), (Ids{300, 3, 4}));
}

TEST_F(KlctlRights, ACommandThatNoTableNamesIsRootsAlone) {
  EXPECT_TRUE(explain("0x60001").starts_with(
      "no: guest has \"read\" (64) for leases, 0x60001 needs a right that only root has\n"));
  EXPECT_EQ(status_, 1);
}

TEST_F(KlctlRights, WhatTheLoaderRefusesNoHandlerIsAskedAbout) {
  explained_.insert(kl::RIGHTS_VERDICT, kl::RIGHTS_DENIED);
  explained_.insert(kl::RIGHTS_NEEDED, kl::RIGHT_CHANGE);
  const std::string text = explain("0x60001");
  EXPECT_TRUE(text.starts_with("no: guest has \"read\" (64) for leases, 0x60001 needs \"change\" (128)\n"))
      << text;
  EXPECT_NE(text.find("needed by   the key commands of this service in /etc/kl/kl-loader.toml\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(asked_, kl::message());
}

TEST_F(KlctlRights, WhatTheLoadersOwnCommandsNeedIsItsOwnList) {
  explained_.insert(kl::RIGHTS_VERDICT, kl::RIGHTS_DENIED);
  explained_.insert(kl::RIGHTS_NEEDED, kl::RIGHT_CONTROL);
  const std::string text = run({"explain", "guest", "loader", "CMD_SETOBJ"});
  EXPECT_NE(text.find("  needed by   the loader's list of its commands\n"), std::string::npos) << text;
}

TEST_F(KlctlRights, BitsWithoutAWordAreANumber) {
  explained_.insert(kl::RIGHTS_RULE, flat(rule("access of leases", "guest", 20, "change and 0x40000")));
  EXPECT_NE(explain().find(":20  access of leases: guest = [\"change\", 0x40000]\n"), std::string::npos);
}

TEST_F(KlctlRights, WhatTheLoaderAllowsTheHandlerMayRefuse) {
  explained_.insert(kl::RIGHTS_VERDICT, kl::RIGHTS_ALLOWED);
  explained_.insert(kl::RIGHTS_NEEDED, kl::RIGHT_READ);
  EXPECT_TRUE(explain("CMD_SET").starts_with("no: ")) << "the handler's table asks for more";
}

TEST_F(KlctlRights, AllRightsPassEveryTable) {
  explained_.remove(kl::RIGHTS_BITS);
  explained_.insert(kl::RIGHTS_VERDICT, kl::RIGHTS_ALLOWED);
  explained_.insert(kl::RIGHTS_RULE, flat(rule("built in", "root", 0, "all")));
  explained_.remove(kl::RIGHTS_PASSED);
  EXPECT_EQ(explain("0x60001"),
            "yes: guest has all rights for leases\n"
            "  decided by  built in  root = \"all\"\n"
            "  but         the handler may have rules of its own, which nobody can ask for\n");
  EXPECT_EQ(asked_, kl::message());
}

TEST_F(KlctlRights, AHandlerThatCannotBeAskedLeavesItOpen) {
  handlersFault_ = kl::ERROR_BRKPATH;
  EXPECT_TRUE(explain("CMD_GETALL")
                  .starts_with("unknown: guest has \"read\" (64) for leases, and what CMD_GETALL needs "
                               "cannot be asked: std failure: broken "
                               "path (2)\n"));
  EXPECT_EQ(status_, 6);
}

TEST_F(KlctlRights, WithoutACommandTheQuestionIsWhetherAnythingPasses) {
  EXPECT_TRUE(explain().starts_with("yes: guest has \"read\" (64) for leases\n"));
  EXPECT_EQ(status_, 0);
  explained_.insert(kl::RIGHTS_VERDICT, kl::RIGHTS_DENIED);
  explained_.insert(kl::RIGHTS_BITS, 0);
  EXPECT_TRUE(explain().starts_with("no: guest has no right (0) for leases\n"));
  EXPECT_EQ(status_, 1);
}

TEST_F(KlctlRights, ALoaderThatDoesNotExplainIsStatusSix) {
  explained_ = kl::errorMsg(kl::ERROR_UNKNOWNID, "nobody is called guest");
  (void)explain("CMD_GETALL");
  EXPECT_EQ(status_, 6);
  EXPECT_EQ(told_, "loader: nobody is called guest (4)");
}

TEST_F(KlctlRights, ProgramsGetJson) {
  const Json all = Json::parse(run({"explain", "guest", "leases", "CMD_REMOVEOBJ", "--json"}));
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(all["verdict"], "no");
  EXPECT_EQ(all["bits"], 64);
  EXPECT_EQ(all["needed"], 128);
  EXPECT_EQ(all["rule"]["line"], 12);
  EXPECT_EQ(all["passed"][0]["key"], "@operators");
}

TEST_F(KlctlRights, AnObjectHasNoRightsOfItsOwn) {
  EXPECT_EQ(failureOf([] { (void)parsed({"rights", "explain", "guest", "leases:4"}); }).status, 2);
  (void)run({"explain", "guest", "leases", "nonsense"});
  EXPECT_EQ(status_, 2);
  EXPECT_EQ(failureOf([] { (void)parsed({"rights", "explain", "guest", "leases", "a=b"}); }).status, 2);
}

TEST_F(KlctlRights, TheListHasALineForEachEntry) {
  kl::message entries;
  entries.insert(kl::STD_OBJS, {flat(rule("access of leases", "bob", 20, "none")),
                                flat(rule("rights", "default", 12, "read"))});
  explained_ = entries;
  EXPECT_EQ(run({"list", "leases"}),
            "table            key     line rights\n"
            "access of leases bob       20 none\n"
            "rights           default   12 read\n");
  EXPECT_EQ(asked1_.get(kl::SYS_CMD, 0), kl::CMD_LIST_RIGHTS);
  EXPECT_EQ(asked1_.get(kl::STD_ID, 0), 300u);
  (void)run({"list", "--json"});
  EXPECT_FALSE(asked1_.has(kl::STD_ID));
  EXPECT_EQ(Json::parse(printed_)[0]["rights"], "none");
}

TEST_F(KlctlRights, WhatTheConfigurationSaysCannotSteerTheTerminal) {
  explained_.insert(kl::RIGHTS_RULE, flat(rule("rights", "\x1b[2Jguest", 12, "read")));
  EXPECT_EQ(explain("CMD_GETALL").find('\x1b'), std::string::npos);
}

}  // namespace klctl
