#include "tools/klctl/verbs/crashes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/services.h"
#include "services/common/tap.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

namespace tap = common::tap;

class CrashesVerb : public testing::Test {
 protected:
  CrashesVerb() {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }

  static kl::message crash(unsigned int id, const std::string& service) {
    kl::message m;
    m.insert(kl::STD_ID, id);
    m.insert(kl::CRASH_TIME, 1763706584000000000ULL + id);
    m.insert(kl::SVC_NAME, service);
    m.insert(kl::SVC_PID, 812);
    m.insert(kl::CRASH_SIGNAL, "SIGSEGV");
    m.insert(kl::CRASH_WHERE, "leases.cpp:175 leases::Leases::cmdGetAll");
    m.insert(kl::CRASH_TIMES, 3);
    m.insert(kl::CRASH_PROGRAM, "/nowhere/leases");
    return m;
  }

  void answerWith(const std::vector<kl::message>& crashes) {
    std::vector<kl::message::flat_message> rows;
    for (const kl::message& m : crashes) rows.push_back(m.flattened());
    reply_ = {};
    reply_.insert(kl::STD_OBJS, rows);
  }

  std::string run(const std::vector<const char*>& words, bool isTerminal = false) {
    RecordedChannels channels([this](const kl::message& m) { return asked_ = m, reply_; }, isTerminal);
    std::string text = channels.perform(parsed(words));
    remarked_ = channels.remarked;
    return text;
  }

  kl::message asked_;
  kl::message reply_;
  std::string remarked_;
};

TEST_F(CrashesVerb, TheListSaysWhatDiedWhenAndWhere) {
  answerWith({crash(7, "leases")});
  for (const std::vector<const char*>& words : {std::vector<const char*>{"crashes"}, {"crashes", "list"}})
    EXPECT_EQ(run(words),
              "id time                service signal  where                                    times\n"
              " 7 2025-11-21 06:29:44 leases  SIGSEGV leases.cpp:175 leases::Leases::cmdGetAll     3\n");
  EXPECT_EQ(asked_.get(kl::SYS_TO, {}), (std::vector<unsigned int>{kl::SERVICE_LOADER, kl::LOADER_CRASHES}));
}

TEST_F(CrashesVerb, AnEmptyListSaysSoOnATerminal) {
  answerWith({});
  EXPECT_EQ(run({"crashes"}, true), "");
  EXPECT_EQ(remarked_, "crashes: none since the loader keeps them\n");
  EXPECT_EQ(run({"crashes"}), "");
  EXPECT_EQ(remarked_, "");
}

TEST_F(CrashesVerb, OneIsShownWithItsReportWhereNobodyKnowsItsSymbols) {
  reply_ = crash(7, "leases");
  reply_.insert(kl::CRASH_REPORT, "/nowhere/leases\n--- signal=11 ---\n\x1b[2J\n");
  const std::string text = run({"crashes", "show", "7"});
  for (const char* const part : {"SIGSEGV", "/nowhere/leases", "--- signal=11 ---", "2025-11-21 06:29:44"})
    EXPECT_NE(text.find(part), std::string::npos) << text;
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  EXPECT_EQ(asked_.get(kl::STD_ID, 0), 7u);
}

// A request, and the reply that nobody waited for.
std::vector<kl::message::flat_message> lastMessages() {
  kl::message request;
  request.insert(tap::AT, 1763706584000000ULL);
  request.insert(tap::SENDER, 500);
  request.insert(tap::RECEIVERS, {300});
  request.insert(tap::COMMAND, kl::CMD_GETALL);
  request.insert(tap::NUMBER, 17);
  request.insert(tap::LENGTH, 61);
  kl::message reply;
  reply.insert(tap::AT, 1763706584002300ULL);
  reply.insert(tap::SENDER, 300);
  reply.insert(tap::RECEIVERS, {500});
  reply.insert(tap::ANSWER, true);
  reply.insert(tap::COMMAND, kl::CMD_GETALL);
  reply.insert(tap::NUMBER, 17);
  reply.insert(tap::LENGTH, 4012);
  reply.insert(tap::FATE, tap::UNASKED);
  return {request.flattened(), reply.flattened()};
}

TEST_F(CrashesVerb, TheLastMessagesOfTheServiceStandBehindTheReport) {
  reply_ = crash(7, "leases");
  reply_.insert(kl::CRASH_REPORT, "leases\n--- signal=11 ---\n");
  reply_.insert(tap::MESSAGES, lastMessages());
  const std::string text = run({"crashes", "show", "7"});
  EXPECT_NE(
      text.find(
          "\nits last messages:\n"
          "06:29:44.000  500 -> 300                    CMD_GETALL, 61 bytes  #17\n"
          "06:29:44.002  300 -> 500                    reply CMD_GETALL, 4012 bytes, nobody waits for it"
          "  2.3 ms  #17\n"),
      std::string::npos)
      << text;
}

TEST_F(CrashesVerb, OfManyMessagesTheLastTwentyAreShownAndJsonHasAll) {
  reply_ = crash(7, "leases");
  std::vector<kl::message::flat_message> many;
  for (int i = 0; i < 15; ++i)
    for (const auto& m : lastMessages()) many.push_back(m);
  reply_.insert(tap::MESSAGES, many);
  const std::string text = run({"crashes", "show", "7"});
  const std::string shown = text.substr(text.find("its last messages:\n"));
  EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 1 + 20);
  const Json json = Json::parse(run({"crashes", "show", "7", "--json"}));
  ASSERT_EQ(json["messages"].size(), 30u);
  EXPECT_EQ(json["messages"][1]["fate"], "nobody waits for it");
  EXPECT_EQ(json["messages"][1]["command"], "CMD_GETALL");
}

TEST_F(CrashesVerb, JsonHasTheFieldsByName) {
  answerWith({crash(7, "leases")});
  const Json all = Json::parse(run({"crashes", "--json"}));
  EXPECT_EQ(all[0]["signal"], "SIGSEGV");
  EXPECT_EQ(all[0]["times"], 3);
}

TEST_F(CrashesVerb, WhoMayNotSeeThemIsTold) {
  reply_ = kl::errorMsg(kl::ERROR_NOTALLOWED, "lacks the right control");
  const auto [status, text] = failureOf([&] { (void)run({"crashes"}); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(text.find("lacks the right control"), std::string::npos) << text;
}

}  // namespace
}  // namespace klctl
