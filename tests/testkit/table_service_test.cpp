// A whole service on the bus, as its main() makes it: a table with a store, an expiry by the wall clock, and undo records.

#include <optional>

#include "kl/services.h"
#include "kl/table.h"
#include "leases.kl.h"
#include "tests/testkit/fixture.h"

namespace kl::test {
namespace {

using namespace std::chrono_literals;

class Leases : public Table<leases::Lease, Looper> {
 public:
  Leases() : Table(kAny, leases::SERVICE) { keep(); }

 private:
  void added(const leases::Lease& lease) override {
    if (!lease.expires) return;
    const auto left = *lease.expires - static_cast<unsigned long long>(std::time(nullptr));
    expiry_.start(std::chrono::seconds(left), [this, id = *lease.id] { remove(id); });
  }

  Timer expiry_{*this};
};

class TableService : public testing::Test {
 protected:
  unsigned int add(unsigned char number, std::optional<unsigned long long> expires) {
    leases::Lease lease;
    lease.mac = {0, 1, 2, 3, 4, number};
    lease.expires = expires;
    return client_.ask({leases::SERVICE}, CMD_ADDOBJ, lease.toMessage()).get(STD_ID, 0);
  }
  unsigned int count() { return client_.ask({leases::SERVICE}, CMD_GETCOUNT).get(STD_GETALLNO, 99); }

  TestBus bus_;
  std::optional<Leases> leases_{std::in_place};
  Peer undo_{bus_, SERVICE_UNDO};
  Peer client_{bus_};
};

TEST_F(TableService, EndsWhatExpires) {
  client_.subscribe({leases::SERVICE});
  Peer other(bus_);
  ASSERT_EQ(add(1, static_cast<unsigned long long>(bus_.wallClock()) + 60), 1u);
  bus_.advance(59s);
  EXPECT_EQ(count(), 1u);
  (void)client_.takeNotified();
  bus_.advance(2s);
  EXPECT_EQ(count(), 0u);
  const auto notified = client_.takeNotified();
  ASSERT_EQ(notified.size(), 1u);
  const auto objects = notified[0].get(STD_OBJS, {});
  EXPECT_TRUE((objects.empty() ? notified[0] : message(objects[0])).has(STD_DEAD));
}

TEST_F(TableService, KeepsItsObjectsOverAnEnd) {
  ASSERT_EQ(add(1, {}), 1u);
  ASSERT_EQ(add(2, {}), 2u);
  bus_.advance(1s);
  leases_.reset();
  bus_.startAgain();
  leases_.emplace();
  EXPECT_EQ(count(), 2u);
}

TEST_F(TableService, ReportsEachChangeToTheUndoService) {
  (void)undo_.takeAsked();
  ASSERT_EQ(add(1, {}), 1u);
  bus_.runUntilIdle();
  EXPECT_EQ(undo_.takeAsked().size() + undo_.takeNotified().size(), 1u);
}

TEST_F(TableService, RefusesByName) {
  leases::Lease lease;
  lease.mac = {1};
  message reply = client_.ask({leases::SERVICE}, CMD_ADDOBJ, lease.toMessage());
  std::string text;
  EXPECT_TRUE(isError(reply, nullptr, &text));
  EXPECT_NE(text.find("mac"), std::string::npos) << text;
}

}  // namespace
}  // namespace kl::test
