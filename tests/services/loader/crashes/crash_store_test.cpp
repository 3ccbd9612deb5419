#include "services/loader/crashes/crash_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "loader.kl.h"
#include "services/common/tap.h"

namespace {

using loader::CrashStore;
using loader::KeptCrash;
namespace fs = std::filesystem;

class CrashStoreTest : public testing::Test {
 protected:
  CrashStoreTest() { store_.open(); }
  ~CrashStoreTest() override { fs::remove_all(folder_); }

  unsigned int add(unsigned int service, const std::string& key, unsigned long long time) {
    return store_.add(
        {.time = time, .service = "s", .serviceId = service, .pid = 7, .signal = "SIGSEGV", .key = key},
        {"report " + key});
  }
  static std::vector<unsigned int> idsOf(const CrashStore& store) {
    std::vector<unsigned int> ids;
    for (const KeptCrash& crash : store.all()) ids.push_back(crash.id);
    return ids;
  }
  static mode_t modeOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
  }

  std::string folder_ = [] {
    char folder[] = "/tmp/crash_store_XXXXXX";
    return std::string(::mkdtemp(folder));
  }();
  loader::Log lines_{-1};
  CrashStore store_{folder_ + "/crashes", lines_};
};

using Ids = std::vector<unsigned int>;

TEST_F(CrashStoreTest, TheLatestIsTheFirst) {
  EXPECT_EQ(add(32, "a", 1), 1u);
  EXPECT_EQ(add(33, "b", 2), 2u);
  EXPECT_EQ(idsOf(store_), (Ids{2, 1}));
  EXPECT_EQ(store_.read(1).get(loader_service::REPORT, ""), "report a");
}

TEST_F(CrashStoreTest, TheSameCrashIsCountedUnderItsId) {
  add(32, "a", 1);
  add(32, "b", 2);
  EXPECT_EQ(add(32, "a", 3), 1u);
  EXPECT_EQ(add(33, "a", 4), 3u);  // another service's
  EXPECT_EQ(idsOf(store_), (Ids{3, 1, 2}));
  EXPECT_EQ(store_.find(1)->times, 2u);
  EXPECT_EQ(store_.read(1).get(loader_service::TIMES, 0), 2u);
}

TEST_F(CrashStoreTest, NobodyElseMayReadIt) {
  add(32, "a", 1);
  EXPECT_EQ(modeOf(folder_ + "/crashes"), 0700u);
  EXPECT_EQ(modeOf(folder_ + "/crashes/1"), 0600u);
}

TEST_F(CrashStoreTest, TheNextLoaderFindsWhatWasKept) {
  add(32, "a", 1);
  store_.setWhere(add(33, "b", 2), "b.cpp:7 main");
  CrashStore next(folder_ + "/crashes", lines_);
  next.open();
  EXPECT_EQ(idsOf(next), (Ids{2, 1}));
  EXPECT_EQ(next.find(2)->where, "b.cpp:7 main");
  EXPECT_EQ(next.add({.time = 5, .serviceId = 32, .key = "c"}, {"c"}), 3u);
}

std::vector<kl::message::flat_message> messagesOf(unsigned int count, std::size_t bytes) {
  std::vector<kl::message::flat_message> messages;
  for (unsigned int i = 0; i < count; ++i) {
    kl::message m;
    m.insert(common::tap::NUMBER, i);
    m.insert(common::tap::CONTENTS, std::vector<unsigned char>(bytes));
    messages.push_back(m.flattened());
  }
  return messages;
}

TEST_F(CrashStoreTest, TheLastMessagesStayWhenThePlaceGetsAName) {
  const auto messages = messagesOf(3, 10);
  const unsigned int id = store_.add({.time = 1, .serviceId = 32, .key = "a"}, {"report", messages});
  store_.setWhere(id, "a.cpp:7 main");
  EXPECT_EQ(store_.read(id).get(common::tap::MESSAGES, {}), messages);
  EXPECT_EQ(store_.read(id).get(loader_service::REPORT, ""), "report");
}

TEST_F(CrashStoreTest, OfMoreMessagesThanAFileTakesTheOldestAreLeftOut) {
  const std::string report(48 * 1024, 'r');
  const unsigned int id =
      store_.add({.time = 1, .serviceId = 32, .key = "a"}, {report, messagesOf(64, 1000)});
  const kl::message kept = store_.read(id);
  EXPECT_EQ(kept.get(loader_service::REPORT, ""), report);
  const auto messages = kept.get(common::tap::MESSAGES, {});
  ASSERT_GT(messages.size(), 5u);
  ASSERT_LT(messages.size(), 64u);
  EXPECT_EQ(kl::message(messages.back()).get(common::tap::NUMBER, 0), 63u);
}

TEST_F(CrashStoreTest, OneServiceDoesNotPushTheOthersOut) {
  add(33, "rare", 1);
  for (std::size_t i = 0; i < 3 * CrashStore::kMost; ++i) add(32, std::to_string(i), i + 2);
  EXPECT_EQ(store_.all().size(), CrashStore::kMostOfService + 1);
  EXPECT_EQ(store_.all().back().serviceId, 33u);
}

TEST_F(CrashStoreTest, ThereIsABoundedNumberOfThemAndNoFileMore) {
  for (unsigned int i = 0; i < 2 * CrashStore::kMost; ++i) add(i, "x", i);
  EXPECT_EQ(store_.all().size(), CrashStore::kMost);
  const fs::directory_iterator files(folder_ + "/crashes");
  EXPECT_EQ(std::distance(begin(files), end(files)), static_cast<std::ptrdiff_t>(CrashStore::kMost));
}

TEST_F(CrashStoreTest, AFileThatIsNoReportIsLeftAloneAndTold) {
  std::ofstream(folder_ + "/crashes/9") << "nonsense";
  std::ofstream(folder_ + "/crashes/notes") << "mine";
  CrashStore next(folder_ + "/crashes", lines_);
  next.open();
  EXPECT_TRUE(next.all().empty());
  EXPECT_TRUE(fs::exists(folder_ + "/crashes/notes"));
}

}  // namespace
