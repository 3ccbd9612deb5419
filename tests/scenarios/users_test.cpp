// Services of ordinary users, which have no rights at each other.

#include <unistd.h>

#include <chrono>

#include "tests/scenarios/fixture.h"
#include "tests/support/process/child_process.h"
#include "tests/support/process/open_folder.h"

namespace scenarios {
namespace {

constexpr unsigned int kListeners = 41;
constexpr unsigned int kGateway = 50;

// A service of the user nobody.
std::string ofNobody(const std::string& name, unsigned int id, const kl::test::OpenFolder& open) {
  return "[[service]]\nname = \"" + name + "\"\nid = " + std::to_string(id) +
         "\nuser = \"nobody\"\ncommand = [\"" + open.program() + "\"]\nenvironment = {LD_LIBRARY_PATH = \"" +
         open.libraries() + "\"}\n";
}

class UserScenario : public testing::Test {
 protected:
  UserScenario() : table_(KL_BIN_DIR, "kl-test-table"), listeners_(KL_BIN_DIR, "kl-test-subscribers") {}

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can start a process as another user";
    if (!table_.isOpen()) GTEST_SKIP() << "other users cannot start " << table_.program();
  }

  std::string tableOfNobody() const { return ofNobody("table", table::kService, table_); }

  static kl::message change(unsigned int id) {
    kl::message m;
    m.insert(kl::STD_ID, id);
    return m;
  }

  // Asks until the number in the answer is this one, or the patience is over.
  static bool becomes(Driver& driver, const Ids& whom, kl::field<unsigned int> what, unsigned int value) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (driver.ask(whom, kl::CMD_GETCOUNT).get(what, 0) != value)
      if (std::chrono::steady_clock::now() >= end) return false;
    return true;
  }

  kl::test::OpenFolder table_;
  kl::test::OpenFolder listeners_;
};

kl::message wish(unsigned int command, unsigned int handler) {
  kl::message m = kl::test::notification(kTable, {handler});
  m.insert(kl::SYS_CMD, command);
  return m;
}

// Runs the gateway to its end, as its user.
bool holdsForGateway(bool (*part)(RawPeer& gateway)) {
  return kl::test::holdsAs(65534, [part] {
    RawPeer gateway;
    return gateway.connect(kPatienceMs) && gateway.registerAs(kGateway) != 0 && part(gateway);
  });
}

}  // namespace

TEST_F(UserScenario, TheirNotificationsArriveWithoutUserAndRights) {
  const LoaderProcess loader(tableOfNobody());
  Driver driver;
  RawPeer root;
  ASSERT_TRUE(root.connect(kPatienceMs));
  ASSERT_NE(root.registerAs(0), 0u);
  ASSERT_TRUE(root.send(wish(kl::CMD_SUBSCRIBE, 7)));
  ASSERT_TRUE(becomes(driver, kTable, table::SUBSCRIPTIONS, 1));
  (void)driver.ask(kTable, kl::CMD_SETOBJ, change(5));
  const auto told = root.receiveCommand(kl::CMD_NOTIFY, kPatienceMs);
  ASSERT_TRUE(told);
  EXPECT_EQ(told->get(kl::SYS_FROM, {}), kTable);
  EXPECT_EQ(idsOf(*told), Ids{5});
  EXPECT_FALSE(told->has(kl::SYS_USER));
  EXPECT_FALSE(told->has(kl::SYS_POLICY));
}

// A handler takes CMD_NOTIFY from nobody who comes with rights.
TEST_F(UserScenario, TheyTellEachOther) {
  const LoaderProcess loader(tableOfNobody() + ofNobody("listeners", kListeners, listeners_));
  Driver driver;
  ASSERT_TRUE(becomes(driver, kTable, table::SUBSCRIPTIONS, 1));
  (void)driver.ask(kTable, kl::CMD_SETOBJ, change(5));
  EXPECT_TRUE(becomes(driver, {kListeners, 1}, table::NOTIFICATIONS, 1));
}

TEST_F(UserScenario, AGatewayEndsWhatLiesBehindIt) {
  const LoaderProcess loader(tableOfNobody() + "[[service]]\nname = \"web\"\nid = " +
                             std::to_string(kGateway) + "\nuser = \"nobody\"\nspeaks_for = [\"daemon\"]\n");
  Driver driver;
  (void)driver.ask(kTable, kl::CMD_GETCOUNT);
  EXPECT_TRUE(holdsForGateway([](RawPeer& gateway) {
    kl::message first = wish(kl::CMD_SUBSCRIBE, 8);
    first.insert(kl::SYS_USER, "daemon");
    kl::message count = kl::test::request(kTable, kl::CMD_GETCOUNT, 1);
    if (!gateway.send(first) || !gateway.send(wish(kl::CMD_SUBSCRIBE, 9)) || !gateway.send(count))
      return false;
    const auto two = gateway.receiveReply(1, kPatienceMs);
    kl::message end = wish(kl::CMD_DISCONNECTED, 8);
    end.remove(kl::SYS_TO);
    end.insert(kl::SYS_TO, {table::kService});
    count.insert(kl::SYS_REQID, 2);
    if (!gateway.send(end) || !gateway.send(count)) return false;
    const auto one = gateway.receiveReply(2, kPatienceMs);
    return two && two->get(table::SUBSCRIPTIONS, 0) == 2 && one && one->get(table::SUBSCRIPTIONS, 0) == 1;
  }));
  EXPECT_TRUE(becomes(driver, kTable, table::SUBSCRIPTIONS, 0)) << "with it ends what it had itself";
}

}  // namespace scenarios
