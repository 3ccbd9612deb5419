#include "tools/klctl/verbs/graph.h"

#include <gtest/gtest.h>

#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tests/tools/klctl/waiting_services.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

class WhoTalksToWhom : public testing::Test {
 protected:
  WhoTalksToWhom() {
    loader_.add(28, "web", 700);
    loader_.add(1, "loader", 600);
    loader_.add(300, "leases");
  }

  std::string run(std::vector<const char*> words = {"graph"}, bool isTerminal = false) {
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

TEST_F(WhoTalksToWhom, TheBusiestWayIsInFrontWithWhatWaitsOnIt) {
  loader_.setTraffic(28, {{0, 3, 100}, {300, 40, 4000}});
  loader_.setTraffic(300, {{28, 41, 2000}}, {{28, {0}, kl::CMD_NOTIFY, 2}, {28, {1}, kl::CMD_NOTIFY, 1}});
  loader_.wait(28, 300, 4200);
  EXPECT_EQ(run(),
            "from   to     messages bytes requests subscriptions\n"
            "web    leases       41  2000        1             3\n"
            "leases web          40  4000        0             0\n"
            "others web           3   100        0             0\n");
}

TEST_F(WhoTalksToWhom, ItIsShownInEachFormat) {
  loader_.setTraffic(300, {{28, 41, 2000}});
  EXPECT_EQ(Json::parse(run({"graph", "--json"})).at(0).at("to_id"), 300);
  EXPECT_EQ(run({"graph", "--dot"}).substr(0, 18), "digraph services {");
  EXPECT_EQ(run({"graph", "--svg"}).substr(0, 5), "<svg ");
}

TEST_F(WhoTalksToWhom, FormatsExcludeEachOther) {
  for (const std::vector<const char*>& words : std::vector<std::vector<const char*>>{
           {"graph", "--dot", "--svg"}, {"graph", "--json", "--dot"}, {"graph", "--svg", "--json"}})
    EXPECT_EQ(failureOf([&] { (void)parsed(words); }).status, static_cast<int>(Status::kUsage));
}

TEST_F(WhoTalksToWhom, NobodyIsSaidOnATerminal) {
  EXPECT_EQ(run(), "");
  EXPECT_EQ(run({"graph"}, true), "");
  EXPECT_EQ(remarked_, "nobody has sent anything\n");
}

TEST_F(WhoTalksToWhom, SubscriptionsAreListedByWhatIsSubscribed) {
  loader_.setTraffic(1, {}, {{28, {}, kl::CMD_NOTIFY, 1}});
  loader_.setTraffic(300, {}, {{28, {0, 3}, 0x60009, 2}, {0, {}, kl::CMD_NOOP, 5}});
  EXPECT_EQ(run({"services", "--subscriptions"}),
            "subscriber at         command    times\n"
            "web        loader     CMD_NOTIFY     1\n"
            "web        leases/0/3 0x60009        2\n"
            "others     leases                    5\n");
  const Json all = Json::parse(run({"services", "--subscriptions", "--json"}));
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[1]["subscriber_id"], 28);
  EXPECT_EQ(all[1]["at_id"], 300);
}

TEST_F(WhoTalksToWhom, NoSubscriptionIsSaidOnATerminal) {
  EXPECT_EQ(run({"services", "--subscriptions"}, true), "");
  EXPECT_EQ(remarked_, "nobody has subscribed\n");
}

TEST_F(WhoTalksToWhom, HostileNamesDoNotReachTheTerminal) {
  loader_.add(66, "a\x1b[2Jb");
  loader_.setTraffic(66, {{66, 1, 40}}, {{66, {}, kl::CMD_NOTIFY, 1}});
  for (const std::vector<const char*>& words :
       std::vector<std::vector<const char*>>{{"graph"},
                                             {"graph", "--dot"},
                                             {"graph", "--svg"},
                                             {"graph", "--json"},
                                             {"services", "--subscriptions"}})
    EXPECT_EQ(run(words).find('\x1b'), std::string::npos) << words.back();
}

}  // namespace
}  // namespace klctl
