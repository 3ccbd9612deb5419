#include "services/logd/asking/rule_table.h"

#include <gtest/gtest.h>

#include "kl/services.h"
#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

struct RuleTableTest : testing::Test {
  static BookRules configured() {
    BookRules c;
    common::Mistakes mistakes;
    c.names = TopicNames::parse("8 debug", "list", mistakes);
    c.files.push_back({"/dev/full", {4}, 2048, 3, kl::LOG_SYNC_LINE});
    return c;
  }

  static unsigned int errorOf(const kl::message& m) {
    unsigned int code = kl::ERROR_OK;
    (void)kl::isError(m, &code);
    return code;
  }

  kl::message setMuted(unsigned int id, bool muted) {
    kl::message request;
    request.insert(kl::LOG_MUTED, muted);
    return table.cmdSetObj(request, id);
  }

  std::vector<unsigned int> allIds() {
    std::vector<unsigned int> ids;
    for (const kl::message object : table.cmdGetAll({}, kl::BADID, 0).get(kl::STD_OBJS, {}))
      ids.push_back(object.get(kl::STD_ID, 0));
    return ids;
  }

  LogBook book{configured()};
  RuleTable rules{book, [this] { ++changes; }};
  kl::Handler& table = rules;
  int changes = 0;
};

TEST_F(RuleTableTest, ItShowsNamedTopicsMutedTopicsAndFiles) {
  EXPECT_EQ(allIds(), (std::vector<unsigned int>{8, kl::LOG_FIRST_FILE}));
  (void)setMuted(300, true);
  EXPECT_EQ(allIds(), (std::vector<unsigned int>{8, 300, kl::LOG_FIRST_FILE}));
  EXPECT_EQ(table.cmdGetCount({}).get(kl::STD_GETALLNO, 0), 3u);
  const kl::message topic = table.cmdGetObj({}, 8);
  EXPECT_EQ(topic.get(kl::LOG_TOPIC_NAME, ""), "debug");
  EXPECT_FALSE(topic.get(kl::LOG_MUTED, true));
}

TEST_F(RuleTableTest, ItIsReadInChunks) {
  (void)setMuted(300, true);
  const kl::message first = table.cmdGetAll({}, kl::BADID, 2);
  EXPECT_EQ(first.get(kl::STD_OBJS, {}).size(), 2u);
  EXPECT_EQ(first.get(kl::STD_GETALLID, 0), kl::LOG_FIRST_FILE);
  const kl::message last = table.cmdGetAll({}, kl::LOG_FIRST_FILE, 2);
  EXPECT_EQ(last.get(kl::STD_OBJS, {}).size(), 1u);
  EXPECT_FALSE(last.has(kl::STD_GETALLID));
}

TEST_F(RuleTableTest, MutingIsToldWhenItChangesSomething) {
  EXPECT_EQ(errorOf(setMuted(8, true)), kl::ERROR_OK);
  EXPECT_EQ(errorOf(setMuted(8, true)), kl::ERROR_OK);
  EXPECT_EQ(changes, 1);
  EXPECT_TRUE(book.mutes().isMuted(8));
  EXPECT_TRUE(table.cmdGetObj({}, 8).get(kl::LOG_MUTED, false));
  (void)setMuted(8, false);
  EXPECT_EQ(changes, 2);
}

TEST_F(RuleTableTest, AFileIsShownAndCannotBeChanged) {
  const kl::message file = table.cmdGetObj({}, kl::LOG_FIRST_FILE);
  EXPECT_EQ(file.get(kl::LOG_FILE, ""), "/dev/full");
  EXPECT_EQ(file.get(kl::LOG_TOPICS, {}), (std::vector<unsigned int>{4}));
  EXPECT_EQ(file.get(kl::LOG_FILE_BYTES, 0), 2048u);
  EXPECT_EQ(file.get(kl::LOG_FILE_COUNT, 0), 3u);
  EXPECT_EQ(file.get(kl::LOG_FILE_SYNC, 0), kl::LOG_SYNC_LINE);
  EXPECT_FALSE(file.has(kl::LOG_FILE_FAILURE));
  EXPECT_EQ(errorOf(setMuted(kl::LOG_FIRST_FILE, true)), kl::ERROR_NOTALLOWED);
}

TEST_F(RuleTableTest, AFileThatCannotBeWrittenSaysWhy) {
  book.add(lineOf("a", {4}), 1);
  book.flush(1);
  const kl::message file = table.cmdGetObj({}, kl::LOG_FIRST_FILE);
  EXPECT_EQ(file.get(kl::LOG_FILE_FAILURE, ""), "No space left on device");
  EXPECT_EQ(file.get(kl::LOG_FILE_LOST, 0), 2u) << "the line that says so is one, too";
}

TEST_F(RuleTableTest, WhatIsNeitherTopicNorFileIsUnknown) {
  for (const unsigned int id : {0u, kl::LOG_FIRST_FILE + 1, kl::BADID}) {
    EXPECT_EQ(errorOf(table.cmdGetObj({}, id)), kl::ERROR_UNKNOWNID) << id;
    EXPECT_EQ(errorOf(setMuted(id, true)), kl::ERROR_UNKNOWNID) << id;
  }
  EXPECT_EQ(errorOf(table.cmdSetObj({}, 8)), kl::ERROR_MISSING);
}

}  // namespace
}  // namespace logd::test
