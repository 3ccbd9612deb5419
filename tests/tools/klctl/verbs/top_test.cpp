#include "tools/klctl/verbs/top.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tests/tools/klctl/waiting_services.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

// A loader whose only service sends a hundred messages between two looks.
class Top : public testing::Test {
 protected:
  kl::message answer(const kl::message& request) {
    const std::vector<unsigned int> to = request.get(kl::SYS_TO, {});
    asked_.push_back(to);
    commands_.push_back(request.get(kl::SYS_CMD, 0));
    kl::message reply;
    if (to.size() > 1) {
      reply.insert(kl::STD_OBJS, {kl::test::flat(openRequest())});
    } else {
      sent_ += 100;
      reply.insert(kl::STD_OBJS, {kl::test::flat(loaderRow()), kl::test::flat(serviceRow())});
    }
    return reply;
  }

  std::string run(std::vector<const char*> words) {
    const std::string dictionaries = std::string(KL_SOURCE_DIR) + "/tools/fields";
    words.insert(words.begin(), {"--fields", dictionaries.c_str(), "top", "--interval", "100ms"});
    RecordedChannels channels([this](const kl::message& m) { return answer(m); });
    return channels.perform(parsed(words));
  }

  std::vector<Json> lines(const std::vector<const char*>& words) {
    std::vector<Json> all;
    std::istringstream text(run(words));
    for (std::string line; std::getline(text, line);) all.push_back(Json::parse(line));
    return all;
  }

  kl::message loaderRow() const {
    kl::message row;
    row.insert(kl::STD_ID, kl::SERVICE_LOADER);
    row.insert(kl::SVC_NAME, "loader");
    row.insert(kl::SVC_STATE, kl::SVC_STATE_RUNNING);
    row.insert(kl::SVC_PID, static_cast<unsigned int>(::getpid()));
    row.insert(kl::SVC_ALL_MESSAGES_OUT, 7 * sent_);
    row.insert(kl::SVC_ALL_DROPS, 3u);
    row.insert(kl::SVC_ALL_DENIALS, 2u);
    return row;
  }

  kl::message serviceRow() const {
    kl::message row;
    row.insert(kl::STD_ID, 300);
    row.insert(kl::SVC_NAME, "leases");
    row.insert(kl::SVC_STATE, kl::SVC_STATE_STOPPED);
    row.insert(kl::SVC_MESSAGES_OUT, sent_);
    row.insert(kl::SVC_QUEUE, 5000);
    if (isWaitedFor_) row.insert(kl::SVC_OLDEST, 4200u);
    return row;
  }

  static kl::message openRequest() {
    kl::message row;
    row.insert(kl::STD_ID, 0);
    row.insert(kl::REQUEST_ASKER, 28);
    row.insert(kl::REQUEST_ASKED, 300);
    row.insert(kl::REQUEST_COMMAND, kl::CMD_GETALL);
    row.insert(kl::REQUEST_AGE, 4200u);
    return row;
  }

  using Path = std::vector<unsigned int>;

  bool isWaitedFor_ = false;
  unsigned long long sent_ = 0;
  std::vector<Path> asked_;
  std::vector<unsigned int> commands_;
};

TEST_F(Top, AsksOnceBeforeEachTableAndSubscribesToNothing) {
  const std::string text = run({"-n", "3"});
  EXPECT_EQ(asked_, std::vector<Path>(4, Path{1}));
  EXPECT_EQ(commands_, std::vector<unsigned int>(4, kl::CMD_GETALL));
  std::size_t tables = 0;
  for (std::size_t at = text.find("services 2 "); at != std::string::npos;
       at = text.find("services 2 ", at + 1))
    ++tables;
  EXPECT_EQ(tables, 3u) << text;
  EXPECT_NE(text.find("dropped 3   denied 2"), std::string::npos) << text;
  EXPECT_NE(text.find("300 leases stopped"), std::string::npos) << text;
}

TEST_F(Top, NamesTheOldestRequest) {
  isWaitedFor_ = true;
  EXPECT_NE(run({"-n", "1"}).find("4.2 s CMD_GETALL of 28"), std::string::npos);
  EXPECT_EQ(asked_, (std::vector<Path>{{1}, {1, 10}, {1}, {1, 10}}));
}

TEST_F(Top, JsonIsALineForEachTable) {
  const std::vector<Json> tables = lines({"-n", "2", "--json"});
  ASSERT_EQ(tables.size(), 2u);
  const Json& loader = tables[1]["services"][0];
  const Json& leases = tables[1]["services"][1];
  EXPECT_EQ(tables[1]["drops"], 3);
  EXPECT_EQ(loader["state"], "running");
  EXPECT_TRUE(loader.contains("memory_kib"));
  EXPECT_TRUE(loader.contains("cpu_percent"));
  EXPECT_GT(leases["out_per_s"], 0);
  EXPECT_LE(leases["out_per_s"], 1000) << "a hundred in at least a tenth of a second";
  EXPECT_EQ(leases["queue"], 5000);
  EXPECT_EQ(leases["history"].size(), 2u);
  EXPECT_FALSE(leases.contains("memory_kib"));
}

TEST_F(Top, SortsByTheColumnThatIsAskedFor) {
  EXPECT_EQ(lines({"-n", "1", "--json", "--sort", "id"})[0]["services"][0]["name"], "loader");
  EXPECT_EQ(lines({"-n", "1", "--json", "--sort", "queue"})[0]["services"][0]["name"], "leases");
  EXPECT_EQ(lines({"-n", "1", "--json", "--sort", "memory"})[0]["services"][0]["name"], "loader");
}

TEST(TopWords, AreTimesCountsAndColumns) {
  EXPECT_EQ(parsed({"top"}).top.interval, std::chrono::seconds(2));
  EXPECT_EQ(parsed({"top", "--interval", "1min"}).top.interval, std::chrono::minutes(1));
  EXPECT_EQ(parsed({"top", "-n", "7"}).top.count, 7u);
  for (const std::vector<const char*>& words : {std::vector<const char*>{"top", "--interval", "99ms"},
                                                {"top", "--interval", "2"},
                                                {"top", "--interval", "2d"},
                                                {"top", "--interval", "-1s"},
                                                {"top", "-n", "0"},
                                                {"top", "-n", "x"},
                                                {"top", "--sort", "state"}})
    EXPECT_EQ(failureOf([&] { (void)parsed(words); }).status, static_cast<int>(Status::kUsage)) << words[2];
}

}  // namespace
}  // namespace klctl
