#include "tools/klctl/verbs/crashes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

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
