#include "services/loader/own/crash_table.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/looper.h"
#include "kl/services.h"

namespace {

using loader::CrashStore;
using loader::CrashTable;

class CrashTableTest : public testing::Test {
 protected:
  CrashTableTest() { store_.open(); }
  ~CrashTableTest() override { std::filesystem::remove_all(folder_); }

  unsigned int add(unsigned int service, const std::string& report) {
    return store_.add(
        {.time = service, .service = "s", .serviceId = service, .signal = "SIGBUS", .key = report}, {report});
  }
  kl::message ask(unsigned int command, unsigned int id = 0) const {
    kl::message request;
    if (id != 0) request.insert(kl::STD_ID, id);
    return table_.answer(request, command);
  }
  static unsigned int errorOf(const kl::message& reply) {
    unsigned int code = kl::ERROR_OK;
    (void)kl::isError(reply, &code);
    return code;
  }
  static std::vector<unsigned int> idsOf(const kl::message& reply) {
    std::vector<unsigned int> ids;
    for (const auto& row : reply.get(kl::STD_OBJS, {})) ids.push_back(kl::message(row).get(kl::STD_ID, 0));
    return ids;
  }

  std::string folder_ = [] {
    char folder[] = "/tmp/crash_table_XXXXXX";
    return std::string(::mkdtemp(folder));
  }();
  loader::Log log_{-1};
  CrashStore store_{folder_ + "/crashes", log_};
  CrashTable table_{store_};
};

using Ids = std::vector<unsigned int>;

TEST_F(CrashTableTest, TheListHasNoReportsAndTheLatestFirst) {
  add(32, "one");
  add(33, "two");
  const kl::message all = ask(kl::CMD_GETALL);
  EXPECT_EQ(idsOf(all), (Ids{2, 1}));
  EXPECT_FALSE(kl::message(all.get(kl::STD_OBJS, {}).at(0)).has(kl::CRASH_REPORT));
  EXPECT_EQ(ask(kl::CMD_GETCOUNT).get(kl::STD_GETALLNO, 0), 2u);
}

TEST_F(CrashTableTest, OneCrashComesWithItsReport) {
  add(32, "what it said");
  const kl::message crash = ask(kl::CMD_GETOBJ, 1);
  EXPECT_EQ(crash.get(kl::CRASH_REPORT, ""), "what it said");
  EXPECT_EQ(crash.get(kl::CRASH_SIGNAL, ""), "SIGBUS");
  EXPECT_EQ(errorOf(ask(kl::CMD_GETOBJ, 2)), kl::ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(ask(kl::CMD_SETOBJ, 1)), kl::ERROR_NOTIMP);
}

TEST_F(CrashTableTest, TheListGoesOnWhereAChunkEnded) {
  for (unsigned int i = 1; i <= 5; ++i) add(i, "x");
  kl::message request;
  request.insert(kl::STD_GETALLNO, 2);
  Ids ids;
  for (bool isDone = false; !isDone;) {
    const kl::message reply = table_.answer(request, kl::CMD_GETALL);
    for (const unsigned int id : idsOf(reply)) ids.push_back(id);
    isDone = !reply.has(kl::STD_GETALLID);
    request.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, 0));
  }
  EXPECT_EQ(ids, (Ids{5, 4, 3, 2, 1}));
}

TEST_F(CrashTableTest, WhoMayNotControlTheLoaderSeesNone) {
  add(32, "one");
  for (const unsigned int command : {kl::CMD_GETALL, kl::CMD_GETOBJ, kl::CMD_GETCOUNT}) {
    kl::message request;
    request.insert(kl::STD_ID, 1);
    request.insert(kl::SYS_POLICY, kl::RIGHT_READ | kl::RIGHT_CHANGE);
    EXPECT_EQ(errorOf(table_.answer(request, command)), kl::ERROR_NOTALLOWED);
  }
}

}  // namespace
