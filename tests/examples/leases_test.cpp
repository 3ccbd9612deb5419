// leases, started by the real loader, and clients that ask it.

#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <optional>

#include "kl/address.h"
#include "kl/client.h"
#include "kl/services.h"
#include "leases.kl.h"
#include "tests/support/doubles/loader_process.h"

namespace {

using leases::Lease;

constexpr int kReplyTicks = 2000;
constexpr int kMostAttempts = 1000;
constexpr char kLeaseServices[] =
    "[[service]]\nname = \"undo\"\nid = 17\ncommand = [\"" KL_BIN_DIR
    "/kl-undo\"]\n"
    "[[service]]\nname = \"leases\"\nid = 300\nrestart = \"always\"\ncommand = [\"" KL_BIN_DIR "/leases\"]\n";

Lease lease(const char* address, const std::string& host = "") {
  Lease result;
  result.mac = {2, 0, 0, 0, 0, 1};
  result.address = *kl::parseAddress(address);
  if (!host.empty()) result.host = host;
  return result;
}

class LeaseService : public testing::Test {
 protected:
  LeaseService() {
    looper_.addHandler(1, &asker_);
    client_.setTimeout(std::chrono::seconds(20));
  }
  ~LeaseService() override { looper_.removeHandler(1); }

  // Lets the loop make passes until the reply of one call of the client is there.
  template <class T, class Call>
  kl::Result<T> result(Call call) {
    std::optional<kl::Result<T>> got;
    call([&got](kl::Result<T> reply) { got.emplace(std::move(reply)); });
    while (!got) {
      looper_.runTimers();
      looper_.runSocks(kl::getJiffies());
      looper_.dispatchQueue();
    }
    return *got;
  }
  kl::Result<unsigned int> add(const Lease& l) {
    return result<unsigned int>([&](auto done) { client_.add(l, std::move(done)); });
  }
  kl::Result<Lease> get(unsigned int id) {
    return result<Lease>([&](auto done) { client_.get(id, std::move(done)); });
  }
  kl::Result<std::vector<Lease>> all() {
    return result<std::vector<Lease>>([&](auto done) { client_.getAll(std::move(done)); });
  }

  kl::message ask(unsigned int service, unsigned int command, unsigned int id) {
    kl::message m;
    m.insert(kl::SYS_TO, {service});
    if (id != kl::BADID) m.insert(kl::STD_ID, id);
    return looper_.exchangeCmd(m, command, kReplyTicks);
  }
  // Has the undo service take back the newest change.
  kl::message undo() {
    const auto records = ask(kl::SERVICE_UNDO, kl::CMD_GETALL, kl::BADID).get(kl::STD_OBJS, {});
    if (records.empty()) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
    const kl::message record(records.front());
    described_ = record.get(kl::UNDO_DESCRIPTION, "");
    return ask(kl::SERVICE_UNDO, kl::CMD_START, record.get(kl::STD_ID, kl::BADID));
  }

  std::string described_;
  kl::test::LoaderProcess loader_{kLeaseServices};
  kl::Looper looper_{kl::Looper::kConnect};
  kl::Handler asker_;
  kl::Client<Lease> client_{asker_};
};

}  // namespace

TEST_F(LeaseService, KeepsWhatItIsGiven) {
  const auto id = add(lease("10.0.0.7", "printer"));
  ASSERT_TRUE(id) << id.error().describe();
  const auto kept = get(*id);
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->id, *id);
  EXPECT_EQ(kl::addressText(kept->address), "10.0.0.7");
  EXPECT_EQ(kept->host, "printer");
}

TEST_F(LeaseService, ErrorsNameTheirFields) {
  Lease wrong = lease("10.0.0.7", std::string(64, 'x'));
  wrong.mac = {1, 2, 3};
  EXPECT_EQ(add(wrong).error().describe(), "mac: at least 6 bytes; host: at most 63 bytes (6)");
  ASSERT_TRUE(add(lease("10.0.0.7")));
  EXPECT_EQ(add(lease("10.0.0.7")).error().describe(), "address: has another lease (6)");
  EXPECT_EQ(all()->size(), 1u);
}

TEST_F(LeaseService, ALeaseEndsWhenItsTimeComes) {
  Lease expired = lease("10.0.0.7");
  expired.expires = static_cast<unsigned long long>(std::time(nullptr)) - 1;
  Lease lasting = lease("10.0.0.8");
  lasting.expires = *expired.expires + 3600;
  const auto first = add(expired), second = add(lasting);
  ASSERT_TRUE(first && second);
  auto reply = get(*first);
  for (int i = 0; i < kMostAttempts && reply; ++i) reply = get(*first);
  EXPECT_EQ(reply.error().code, kl::ERROR_UNKNOWNID);
  EXPECT_TRUE(get(*second));
}

TEST_F(LeaseService, LeasesOutliveTheProcess) {
  const auto id = add(lease("10.0.0.7"));
  ASSERT_TRUE(id);
  const kl::message service = ask(kl::SERVICE_LOADER, kl::CMD_GETOBJ, leases::SERVICE);
  ASSERT_EQ(::kill(static_cast<pid_t>(service.get(kl::SVC_PID, 0)), SIGKILL), 0);
  const unsigned int deadline = kl::getJiffies() + kReplyTicks;
  auto reply = get(*id);
  while (!reply && kl::getJiffies() < deadline) reply = get(*id);
  ASSERT_TRUE(reply) << reply.error().describe();
  EXPECT_EQ(kl::addressText(reply->address), "10.0.0.7");
}

TEST_F(LeaseService, ChangesAreUndone) {
  const auto id = add(lease("10.0.0.7"));
  ASSERT_TRUE(id);
  ASSERT_TRUE(result<kl::NoFields>([&](auto done) { client_.remove(*id, std::move(done)); }));
  EXPECT_FALSE(get(*id));
  EXPECT_FALSE(kl::isError(undo()));
  EXPECT_EQ(described_, "lease " + std::to_string(*id) + " removed");
  EXPECT_TRUE(get(*id));
  EXPECT_FALSE(kl::isError(undo())) << "it is done again";
  EXPECT_FALSE(get(*id));
}

TEST_F(LeaseService, AllAreReleasedAtOnce) {
  ASSERT_TRUE(add(lease("10.0.0.7")));
  ASSERT_TRUE(add(lease("10.0.0.8")));
  const auto reply =
      result<leases::LeaseReleaseAllReply>([&](auto done) { client_.releaseAll(std::move(done)); });
  ASSERT_TRUE(reply) << reply.error().describe();
  EXPECT_EQ(reply->released, 2u);
  EXPECT_TRUE(all()->empty());
}
