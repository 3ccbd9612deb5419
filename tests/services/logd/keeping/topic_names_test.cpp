#include "services/logd/keeping/topic_names.h"

#include <gtest/gtest.h>

#include "kl/services.h"
#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

TopicNames parse(const std::string& text) {
  common::Mistakes mistakes;
  TopicNames names = TopicNames::parse(text, "list", mistakes);
  for (const common::Mistake& m : mistakes) ADD_FAILURE() << m.describe();
  return names;
}

std::string mistakeIn(const std::string& text) {
  common::Mistakes mistakes;
  (void)TopicNames::parse(text, "list", mistakes);
  std::string all;
  for (const common::Mistake& m : mistakes) all += m.describe() + "\n";
  return all;
}

TEST(TopicNames, TheyAreKnownByNameAndByNumber) {
  const TopicNames names = parse("# topics\n\n4  error # bad\n300\tmy-own.topic_2\n");
  EXPECT_EQ(*names.findName(4), "error");
  EXPECT_EQ(names.findName(5), nullptr);
  EXPECT_EQ(names.find("my-own.topic_2"), Topic{300});
  EXPECT_EQ(names.find("65535"), Topic{65535});
  for (const char* word : {"", "0", "65536", "-1", "4x", "warning"}) EXPECT_FALSE(names.find(word)) << word;
}

TEST(TopicNames, AListOfTopicsIsWrittenByNameWhereThereIsOne) {
  const TopicNames names = parse("4 error");
  EXPECT_EQ(names.listOf({4, 32}), "error,32");
  EXPECT_EQ(names.listOf({}), "-");
}

TEST(TopicNames, ALineThatIsNoTopicIsAMistakeWithItsNumber) {
  EXPECT_TRUE(mistakeIn("\nerror 4").starts_with("list:2: expected the number of a topic"));
  for (const char* line : {"4", "4 error bad", "4 Error", "4 4error"})
    EXPECT_TRUE(mistakeIn(line).starts_with("list:1: expected one name behind the number")) << line;
  for (const char* lines : {"4 error\n4 other", "4 error\n5 error"})
    EXPECT_TRUE(mistakeIn(lines).starts_with("list:2: expected a topic and a name that did not come"))
        << lines;
}

TEST(TopicNames, TheShippedListHasTheTopicsOfTheHeader) {
  const TopicNames names = parse(contentOf(KL_SOURCE_DIR "/services/logd/topics.list"));
  EXPECT_EQ(names.find("emergency"), kl::TOPIC_EMERGENCY);
  EXPECT_EQ(names.find("alert"), kl::TOPIC_ALERT);
  EXPECT_EQ(names.find("critical"), kl::TOPIC_CRITICAL);
  EXPECT_EQ(names.find("error"), kl::TOPIC_ERROR);
  EXPECT_EQ(names.find("warning"), kl::TOPIC_WARNING);
  EXPECT_EQ(names.find("notice"), kl::TOPIC_NOTICE);
  EXPECT_EQ(names.find("info"), kl::TOPIC_INFO);
  EXPECT_EQ(names.find("debug"), kl::TOPIC_DEBUG);
  EXPECT_EQ(names.find("loader"), kl::TOPIC_LOADER);
  EXPECT_EQ(names.find("undo"), kl::TOPIC_UNDO);
  EXPECT_EQ(names.find("system"), kl::TOPIC_SYSTEM);
  EXPECT_EQ(names.find("logd"), kl::TOPIC_LOGD);
  EXPECT_EQ(names.find("output"), kl::TOPIC_OUTPUT);
  EXPECT_EQ(names.find("errors"), kl::TOPIC_ERRORS);
  EXPECT_EQ(names.find("netif"), kl::TOPIC_NETIF);
  EXPECT_EQ(names.all().size(), 15u);
}

}  // namespace
}  // namespace logd::test
