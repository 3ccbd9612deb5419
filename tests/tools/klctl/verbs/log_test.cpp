#include "tools/klctl/verbs/log.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>

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

kl::message lineOf(const std::vector<unsigned int>& topics, const std::string& text) {
  kl::message m;
  m.insert(kl::STD_ID, 1);
  m.insert(kl::LOG_TIME, 1795241306123456789ull);
  m.insert(kl::LOG_PROCESS, "netif");
  m.insert(kl::LOG_PROCESS_ID, 812);
  m.insert(kl::LOG_TOPICS, topics);
  m.insert(kl::LOG_TEXT, text);
  return m;
}

// The log service with two named topics and one line; keeps what it was asked last.
class KlctlLog : public testing::Test {
 protected:
  KlctlLog() {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
  }

  std::string run(std::vector<const char*> words) {
    const bool isMuting = !words.empty() && *words.front() != '-';
    words.insert(words.begin(), "log");
    if (!isMuting) words.insert(words.begin(), {"--fields", KL_SOURCE_DIR "/tools/fields"});
    RecordedChannels channels([this](const kl::message& m) { return answer(m); });
    std::string printed = channels.perform(parsed(words));
    remarked_ = channels.remarked;
    return printed;
  }

  kl::message answer(const kl::message& request) {
    kl::message reply;
    kl::setType(reply, kl::TYPE_REPLY);
    if (request.get(kl::SYS_TO, {}) == std::vector<unsigned int>{kl::SERVICE_LOG}) {
      if (request.get(kl::SYS_CMD, 0) == kl::CMD_GET) {
        if (seesItsOwn_) reply.insert(kl::LOG_UID, 1000);
        return reply;
      }
      asked_ = request;
      reply.insert(kl::STD_OBJS, {flat(lineOf({5, 32}, "eth0 is down"))});
      return reply;
    }
    if (request.get(kl::SYS_CMD, 0) == kl::CMD_GETALL) {
      reply.insert(kl::STD_OBJS,
                   {flat(topic(5, "warning")), flat(topic(8, nameOfDebug_)), flat(topic(300, ""))});
      return reply;
    }
    asked_ = request;
    if (isForbidden_) reply.merge(kl::errorMsg(kl::ERROR_NOTALLOWED, ""));
    return reply;
  }

  static kl::message topic(unsigned int id, const std::string& name) {
    kl::message m;
    m.insert(kl::STD_ID, id);
    if (!name.empty()) m.insert(kl::LOG_TOPIC_NAME, name);
    return m;
  }

  LogTopics topics() {
    return LogTopics([this](const kl::message& m) { return answer(m); });
  }

  kl::message asked_;
  bool isForbidden_ = false;
  bool seesItsOwn_ = false;
  std::string remarked_;
  std::string nameOfDebug_ = "debug";
};

TEST_F(KlctlLog, ALineIsShownWithTimeProcessTopicsAndText) {
  EXPECT_EQ(run({}), "2026-11-21 06:08:26.123 netif[812] warning,32: eth0 is down\n");
  EXPECT_EQ(asked_.get(kl::SYS_TO, {}), std::vector<unsigned int>{kl::SERVICE_LOG});
  EXPECT_FALSE(asked_.has(kl::LOG_TOPICS));
  EXPECT_FALSE(asked_.has(kl::LOG_SINCE));
}

TEST_F(KlctlLog, WhoSeesItsOwnLinesAloneIsTold) {
  (void)run({});
  EXPECT_EQ(remarked_, "");
  seesItsOwn_ = true;
  EXPECT_EQ(run({}), "2026-11-21 06:08:26.123 netif[812] warning,32: eth0 is down\n");
  EXPECT_TRUE(remarked_.starts_with("log: only your own lines are shown; ")) << remarked_;
  EXPECT_EQ(Json::parse(run({"--json"})).size(), 1u);
  EXPECT_TRUE(remarked_.starts_with("log: only your own lines are shown; ")) << remarked_;
}

TEST_F(KlctlLog, TopicsAndTimeGoIntoTheRequest) {
  (void)run({"--topic", "debug", "--topic", "300", "--since", "@5"});
  EXPECT_EQ(asked_.get(kl::LOG_TOPICS, {}), (std::vector<unsigned int>{8, 300}));
  EXPECT_EQ(asked_.get(kl::LOG_SINCE, 0), 5'000'000'000ull);
}

TEST_F(KlctlLog, ATopicThatNobodyKnowsIsRefused) {
  const Told told = failureOf([this] { (void)run({"--topic", "nonsense"}); });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "log: there is no topic 'nonsense'");
}

TEST_F(KlctlLog, AsJsonEveryFieldHasItsName) {
  const Json all = Json::parse(run({"--json"}));
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0]["text"], "eth0 is down");
  EXPECT_EQ(all[0]["topics"], Json({5, 32}));
}

TEST_F(KlctlLog, MutingSetsTheTopicsRule) {
  EXPECT_EQ(run({"mute", "debug"}), "");
  EXPECT_EQ(asked_.get(kl::SYS_TO, {}), (std::vector<unsigned int>{kl::SERVICE_LOG, kl::LOG_RULES}));
  EXPECT_EQ(asked_.get(kl::SYS_CMD, 0), kl::CMD_SETOBJ);
  EXPECT_EQ(asked_.get(kl::STD_ID, 0), 8u);
  EXPECT_TRUE(asked_.get(kl::LOG_MUTED, false));
  (void)run({"unmute", "300"});
  EXPECT_EQ(asked_.get(kl::STD_ID, 0), 300u);
  EXPECT_FALSE(asked_.get(kl::LOG_MUTED, true));
}

TEST_F(KlctlLog, WhoMayNotMuteIsTold) {
  isForbidden_ = true;
  EXPECT_EQ(failureOf([this] { (void)run({"mute", "debug"}); }).status, 1);
}

TEST_F(KlctlLog, ColourSaysHowMuchALineMatters) {
  const LogTopics names = topics();
  EXPECT_TRUE(logLine(lineOf({32, 2, 5}, "a"), names, true).starts_with("\x1b[1;31m2026"));
  EXPECT_TRUE(logLine(lineOf({5}, "a"), names, true).starts_with("\x1b[33m2026"));
  EXPECT_TRUE(logLine(lineOf({8}, "a"), names, true).ends_with("a\x1b[0m\n"));
  EXPECT_TRUE(logLine(lineOf({32}, "a"), names, true).starts_with("2026"));
  EXPECT_TRUE(logLine(lineOf({2}, "a"), names, false).starts_with("2026"));
}

TEST_F(KlctlLog, ATextCannotSteerTheTerminal) {
  kl::message line = lineOf({}, kHostile + "\n");
  line.insert(kl::LOG_PROCESS, kHostile);
  const std::string shown = logLine(line, topics(), false);
  EXPECT_TRUE(shown.ends_with(" " + kHarmless + "[812] -: " + kHarmless + "\\x0a\n")) << shown;
}

TEST_F(KlctlLog, ATopicsNameCannotSteerTheTerminal) {
  nameOfDebug_ = kHostile;
  const std::string shown = logLine(lineOf({8}, "a"), topics(), false);
  EXPECT_TRUE(shown.ends_with(" " + kHarmless + ": a\n")) << shown;
}

TEST_F(KlctlLog, WhatIsNoTerminalIsNotColoured) {
  testing::internal::CaptureStdout();
  EXPECT_FALSE(wantsColour());
  (void)testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace klctl
