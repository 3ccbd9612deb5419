#include "tools/klctl/verbs/log_filter.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/builders.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tools/klctl/values/json.h"
#include "tools/klctl/verbs/log.h"

namespace klctl {
namespace {

using kl::test::flat;
using Texts = std::vector<std::string>;

// The loader with the service leases (300, pid 812), and the log service with lines of it, of netif and of the loader.
class FilteredLog : public testing::Test {
 protected:
  // The texts that are shown.
  Texts run(std::vector<const char*> words) {
    words.insert(words.begin(), {"--fields", KL_SOURCE_DIR "/tools/fields", "--json", "log"});
    RecordedChannels channels([this](const kl::message& m) { return answer(m); });
    Texts texts;
    for (const Json& line : Json::parse(channels.perform(parsed(words)))) texts.push_back(line["text"]);
    return texts;
  }

  kl::message answer(const kl::message& request) {
    const auto to = request.get(kl::SYS_TO, {});
    kl::message reply;
    kl::setType(reply, kl::TYPE_REPLY);
    if (to == std::vector<unsigned int>{kl::SERVICE_LOADER}) {
      if (request.get(kl::SYS_CMD, 0) == kl::CMD_GETALL) reply.insert(kl::STD_OBJS, {flat(leases())});
      else reply.merge(leases());
    } else if (to == std::vector<unsigned int>{kl::SERVICE_LOG, kl::LOG_RULES}) {
      reply.insert(kl::STD_OBJS, topics());
    } else if (request.get(kl::SYS_CMD, 0) == kl::CMD_GETALL) {
      asked_ = request;
      reply.insert(kl::STD_OBJS, lines_);
    }
    return reply;
  }

  static kl::message leases() {
    kl::message m;
    m.insert(kl::STD_ID, 300);
    m.insert(kl::SVC_NAME, "leases");
    m.insert(kl::SVC_PID, 812);
    return m;
  }

  static std::vector<kl::message::flat_message> topics() {
    std::vector<kl::message::flat_message> all;
    const std::pair<unsigned int, const char*> named[] = {
        {4, "error"}, {5, "warning"}, {7, "info"}, {8, "debug"}, {32, "netif"}};
    for (const auto& [id, name] : named) {
      kl::message m;
      m.insert(kl::STD_ID, id);
      m.insert(kl::LOG_TOPIC_NAME, name);
      all.push_back(flat(m));
    }
    return all;
  }

  void logs(unsigned int pid, const std::vector<unsigned int>& of, const std::string& text) {
    kl::message m;
    m.insert(kl::STD_ID, static_cast<unsigned int>(lines_.size() + 1));
    m.insert(kl::LOG_PROCESS_ID, pid);
    m.insert(kl::LOG_TOPICS, of);
    m.insert(kl::LOG_TEXT, text);
    lines_.push_back(flat(m));
  }

  std::vector<kl::message::flat_message> lines_;
  kl::message asked_;
};

TEST_F(FilteredLog, ALevelShowsWhatIsAtLeastAsSevere) {
  logs(1, {4}, "an error");
  logs(1, {5, 32}, "a warning");
  logs(1, {32}, "no severity");
  logs(1, {8, 4}, "an error among details");
  logs(1, {8}, "a detail");
  EXPECT_EQ(run({"--level", "error"}), (Texts{"an error", "an error among details"}));
  EXPECT_EQ(asked_.get(kl::LOG_TOPICS, {}), (std::vector<unsigned int>{1, 2, 3, 4}));
  EXPECT_EQ(run({"--level", "info"}),
            (Texts{"an error", "a warning", "no severity", "an error among details"}));
  EXPECT_FALSE(asked_.has(kl::LOG_TOPICS)) << "lines without a severity would be left out";
  EXPECT_EQ(run({"--level", "5", "--topic", "netif"}), Texts{"a warning"});
  EXPECT_EQ(asked_.get(kl::LOG_TOPICS, {}), std::vector<unsigned int>{32});
}

TEST_F(FilteredLog, ATopicThatIsNoSeverityIsNoLevel) {
  for (const char* word : {"netif", "9", "0", "nonsense"}) {
    const Told told = failureOf([&] { (void)run({"--level", word}); });
    EXPECT_EQ(told.status, 2);
    EXPECT_TRUE(told.sentence.starts_with("log: --level takes emergency, ")) << told.sentence;
    EXPECT_TRUE(told.sentence.ends_with(std::string("not '") + word + "'")) << told.sentence;
  }
}

TEST_F(FilteredLog, AServiceHasItsLinesAndWhatTheLoaderSaysOfIt) {
  logs(1, {16}, "leases (300, pid 700): started");
  logs(700, {7}, "of the first process");
  logs(7, {20}, "leases (300, pid 700): words of the first process");
  logs(1, {16}, "leases (300): ended");
  logs(1, {16}, "leases (3000, pid 701): another");
  logs(701, {7}, "of another");
  logs(1, {16}, "leases2 (300, pid 702): yet another");
  logs(702, {7}, "of yet another");
  logs(812, {4}, "of the process that runs");
  logs(9, {7}, "leases (300, pid 703): who is not the loader may write so");
  logs(703, {7}, "and is not believed");
  const Texts its{"leases (300, pid 700): started", "of the first process",
                  "leases (300, pid 700): words of the first process", "leases (300): ended",
                  "of the process that runs"};
  EXPECT_EQ(run({"--service", "leases"}), its);
  EXPECT_EQ(run({"--service", "300"}), its);
  EXPECT_EQ(run({"--service", "leases", "--topic", "info", "--grep", "of the"}),
            Texts{"of the first process"});
  EXPECT_FALSE(asked_.has(kl::LOG_TOPICS) || asked_.has(kl::LOG_CONTAINS))
      << "the loader's lines tell the processes";
}

TEST_F(FilteredLog, AServiceThatThereIsNotIsRefused) {
  const Told told = failureOf([this] { (void)run({"--service", "lease"}); });
  EXPECT_EQ(told.status, 1);
  EXPECT_NE(told.sentence.find("did you mean 'leases'?"), std::string::npos) << told.sentence;
}

TEST_F(FilteredLog, APatternIsThatOfGrep) {
  logs(1, {7}, "eth0 is down");
  logs(1, {7}, "eth1 is up");
  logs(1, {7}, "lo is up");
  EXPECT_EQ(run({"--grep", "^eth[0-9].*(up|gone)$"}), Texts{"eth1 is up"});
  EXPECT_FALSE(asked_.has(kl::LOG_CONTAINS));
  EXPECT_EQ(run({"--grep", "is up"}), (Texts{"eth1 is up", "lo is up"}));
  EXPECT_EQ(asked_.get(kl::LOG_CONTAINS, ""), "is up") << "the log service can look by itself";
}

TEST_F(FilteredLog, APatternThatIsNoneIsAMistake) {
  const Told told = failureOf([this] { (void)run({"--grep", "eth[0"}); });
  EXPECT_EQ(told.status, 2);
  EXPECT_TRUE(told.sentence.starts_with("log: --grep 'eth[0': ")) << told.sentence;
}

TEST_F(FilteredLog, TheNewestAreCountedBehindTheFilter) {
  for (const char* text : {"a1", "b1", "a2", "b2", "a3", "b3"}) logs(1, {7}, text);
  EXPECT_EQ(run({"-n", "2"}), (Texts{"a3", "b3"}));
  EXPECT_EQ(run({"-n", "2", "--grep", "a"}), (Texts{"a2", "a3"}));
  EXPECT_EQ(run({"--lines", "7"}).size(), 6u);
  EXPECT_EQ(run({"-n", "0"}), Texts{});
  EXPECT_EQ(failureOf([this] { (void)run({"-n", "-1"}); }).status, 2);
}

TEST_F(FilteredLog, MutingHasNoUseForAFilter) {
  for (const char* option : {"--service", "--level", "--grep", "--lines"})
    EXPECT_EQ(failureOf([&] { (void)run({option, "1", "mute", "debug"}); }).status, 2) << option;
}

}  // namespace
}  // namespace klctl
