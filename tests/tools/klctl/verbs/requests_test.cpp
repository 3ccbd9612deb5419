#include "tools/klctl/verbs/requests.h"

#include <gtest/gtest.h>

#include "tests/tools/klctl/recorded_channels.h"
#include "tests/tools/klctl/waiting_services.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

class OpenRequestList : public testing::Test {
 protected:
  OpenRequestList() {
    loader_.add(28, "web", 700);
    loader_.add(1, "loader", 600);
    loader_.add(300, "leases");
  }

  std::string run(std::vector<const char*> words = {"requests"}, bool isTerminal = false) {
    const std::string dictionaries = std::string(KL_SOURCE_DIR) + "/tools/fields";
    words.insert(words.begin(), {"--fields", dictionaries.c_str()});
    RecordedChannels channels([this](const kl::message& m) { return loader_.answer(m); }, isTerminal);
    const std::string text = channels.perform(parsed(words));
    remarked_ = channels.remarked;
    return text;
  }

  WaitingServices loader_;
  std::string remarked_;
};

TEST_F(OpenRequestList, HaveALineEachWithTheOldestInFront) {
  loader_.wait(28, 300, 35, 0x60009, {3});
  loader_.wait(28, 300, 4200);
  EXPECT_EQ(run(),
            "asker asked    command    age   state\n"
            "web   leases/0 CMD_GETALL 4.2 s delivered\n"
            "web   leases/3 0x60009    35 ms delivered\n");
}

TEST_F(OpenRequestList, ACommandHasTheNameThatTheDescriptionOfTheAskedServiceGivesIt) {
  loader_.wait(28, 1, 35, kl::CMD_RELOAD, {});
  EXPECT_NE(run().find(" reload "), std::string::npos);
}

TEST_F(OpenRequestList, ProgramsGetNumbersBesideTheNames) {
  loader_.wait(28, 300, 4200, kl::CMD_GETALL, {0, 7});
  const Json all = Json::parse(run({"requests", "--json"}));
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0]["asker"], "web");
  EXPECT_EQ(all[0]["asked_id"], 300);
  EXPECT_EQ(all[0]["path"], Json::parse("[0, 7]"));
  EXPECT_EQ(all[0]["command"], "CMD_GETALL");
  EXPECT_EQ(all[0]["command_code"], kl::CMD_GETALL);
  EXPECT_EQ(all[0]["age_ms"], 4200);
  EXPECT_EQ(all[0]["held"], false);
}

TEST_F(OpenRequestList, NoneIsSaidOnATerminal) {
  EXPECT_EQ(run(), "");
  EXPECT_EQ(remarked_, "");
  EXPECT_EQ(run({"requests"}, true), "");
  EXPECT_EQ(remarked_, "no request is open\n");
  EXPECT_EQ(Json::parse(run({"requests", "--json"})), Json::array());
}

TEST_F(OpenRequestList, HostileNamesDoNotReachTheTerminal) {
  loader_.add(66, "a\x1b[2Jb");
  loader_.wait(66, 66, 35);
  EXPECT_EQ(run().find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace klctl
