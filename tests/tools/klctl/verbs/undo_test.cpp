#include "tools/klctl/verbs/undo.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>
#include <filesystem>
#include <fstream>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/builders.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/hostile_text.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

using kl::test::flat;

kl::message setDescription(const std::string& text) {
  kl::message m;
  m.insert(kl::SYS_CMD, kl::CMD_SET);
  m.insert(kl::STD_DESCR, text);
  return m;
}

kl::message record(unsigned int id, bool isUndone, const std::string& hostile = "") {
  kl::message m;
  m.insert(kl::STD_ID, id);
  m.insert(kl::UNDO_TIME, 1767225600);
  m.insert(kl::UNDO_USER, "alice");
  m.insert(kl::UNDO_SOURCE, {32, 3});
  m.insert(kl::UNDO_DESCRIPTION, "rename eth0" + hostile);
  m.insert(kl::UNDO_RIGHTS, 128);
  m.insert(kl::UNDO_REQUEST, flat(setDescription("new" + hostile)));
  m.insert(kl::UNDO_MESSAGE, flat(setDescription("old")));
  if (isUndone) m.insert(kl::UNDO_UNDONE, true);
  return m;
}

// The undo service with two records, and the loader's names, in one place; keeps what it was asked.
class KlctlUndo : public testing::Test {
 protected:
  KlctlUndo() {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
  }

  std::string run(std::vector<const char*> words) {
    const std::string dictionaries = std::string(KL_SOURCE_DIR) + "/tools/fields";
    words.insert(words.begin(), {"--fields", dictionaries.c_str(), "undo"});
    return RecordedChannels([this](const kl::message& m) { return answer(m); }).perform(parsed(words));
  }

  kl::message answer(const kl::message& request) {
    if (request.get(kl::SYS_TO, {}).front() == kl::SERVICE_LOADER) return nameOfNetif();
    last_ = request;
    if (reply_ != kl::message()) return reply_;
    switch (request.get(kl::SYS_CMD, 0)) {
      case kl::CMD_GETALL: return chunk(request);
      case kl::CMD_GETOBJ: return record(request.get(kl::STD_ID, 0), isUndone_, hostile_);
      default: return {};
    }
  }

  static kl::message nameOfNetif() {
    kl::message m;
    m.insert(kl::SVC_NAME, "netif");
    return m;
  }

  // One record a reply.
  kl::message chunk(const kl::message& request) const {
    const unsigned int id = request.get(kl::STD_GETALLID, 9);
    kl::message m;
    m.insert(kl::STD_OBJS, {flat(record(id, id == 9, hostile_))});
    if (id == 9) m.insert(kl::STD_GETALLID, 4);
    return m;
  }

  kl::message last_;
  kl::message reply_;
  bool isUndone_ = false;
  std::string hostile_;
};

}  // namespace

TEST_F(KlctlUndo, TheListIsForPeople) {
  EXPECT_EQ(run({"list"}),
            "id time                user  service description undone\n"
            " 9 2026-01-01 00:00:00 alice netif/3 rename eth0 yes\n"
            " 4 2026-01-01 00:00:00 alice netif/3 rename eth0 \n");
}

TEST_F(KlctlUndo, TheListIsJsonForPrograms) {
  const Json all = Json::parse(run({"list", "--json"}));
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0]["id"], 9);
  EXPECT_EQ(all[0]["time"], 1767225600);
  EXPECT_EQ(all[0]["source"], Json::array({32, 3}));
  EXPECT_EQ(all[0]["undone"], true);
  EXPECT_EQ(all[1]["undo"]["descr"], "old");
  EXPECT_FALSE(all[1].contains("undone"));
}

TEST_F(KlctlUndo, OneRecordIsShownWithItsMessages) {
  const std::string text = run({"show", "4"});
  EXPECT_EQ(last_.get(kl::STD_ID, 0), 4u);
  EXPECT_EQ(last_.get(kl::SYS_CMD, 0), kl::CMD_GETOBJ);
  EXPECT_EQ(last_.get(kl::SYS_TO, {}), std::vector<unsigned int>{17});
  for (const char* part : {"rename eth0", "netif/3", "change", "what was asked:\n---", "=new\n",
                           "what undoes it:\n---", "=old\n"})
    EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
  isUndone_ = true;
  EXPECT_NE(run({"show", "4"}).find("what does it again:\n---"), std::string::npos);
}

TEST_F(KlctlUndo, ARecordCannotSteerTheTerminal) {
  hostile_ = kHostile;
  for (const std::string& text : {run({"show", "4"}), run({"list"}), run({"show", "4", "--dump"})}) {
    EXPECT_NE(text.find(kHarmless), std::string::npos) << text;
    for (const char* part : {"\x1b", "\x07", "\x7f", "\xc2\x9b", "\xe2\x80\xae", "\xff"})
      EXPECT_EQ(text.find(part), std::string::npos) << text;
  }
}

// The messages of a record are those of netif, and what is secret in them is said by its description.
TEST_F(KlctlUndo, SecretsOfTheServiceAreNotShown) {
  char name[] = "/tmp/klctl-undo-XXXXXX";
  const std::string folder = ::mkdtemp(name);
  std::ofstream(folder + "/netif.toml")
      << "fields = [{ name = \"descr\", field = \"string:std.9\", secret = true }]\n";
  const auto runIn = [&](std::vector<const char*> words) {
    words.insert(words.begin(), {"--fields", folder.c_str(), "undo"});
    return RecordedChannels([this](const kl::message& m) { return answer(m); }).perform(parsed(words));
  };
  hostile_ = "swordfish";
  for (const std::vector<const char*>& words :
       {std::vector<const char*>{"show", "4"}, std::vector<const char*>{"show", "4", "--dump"},
        std::vector<const char*>{"show", "4", "--json"}, std::vector<const char*>{"list", "--json"},
        std::vector<const char*>{"list", "--dump"}}) {
    EXPECT_EQ(runIn(words).find("newswordfish"), std::string::npos) << runIn(words);
    std::vector<const char*> open = words;
    open.push_back("--secrets");
    EXPECT_NE(runIn(open).find("newswordfish"), std::string::npos) << runIn(open);
  }
  std::filesystem::remove_all(folder);
}

TEST_F(KlctlUndo, RunStartsARecordAndPrintsNothing) {
  EXPECT_EQ(run({"run", "0x10"}), "");
  EXPECT_EQ(last_.get(kl::STD_ID, 0), 16u);
  EXPECT_EQ(last_.get(kl::SYS_CMD, 0), kl::CMD_START);
  EXPECT_EQ(run({"run", "16", "--json"}), "{}\n");
}

TEST_F(KlctlUndo, AnErrorReplyIsToldWithTheRecord) {
  reply_ = kl::errorMsg(kl::ERROR_NOTALLOWED, "");
  const Told run7 = failureOf([&] { (void)run({"run", "7"}); });
  EXPECT_EQ(run7.status, 1);
  const std::string hint = "std failure: not allowed (9); klctl rights explain " + ownName() + " undo ";
  EXPECT_EQ(run7.sentence, "undo:7: " + hint + "CMD_START says why");
  EXPECT_EQ(failureOf([&] { (void)run({"list"}); }).sentence, "undo: " + hint + "CMD_GETALL says why");
}

TEST_F(KlctlUndo, ADumpShowsTheReplies) {
  const std::string text = run({"list", "--dump"});
  EXPECT_NE(text.find("STD_OBJS"), std::string::npos) << text;
  EXPECT_EQ(text.find("rename eth0 yes"), std::string::npos);
}

}  // namespace klctl
