// Tables in memory: their order, and how they outlive the process.

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

#include "kl/services.h"
#include "kl/store.h"
#include "kl/table.h"
#include "kl/utilities.h"
#include "tests/lib/tables/route.h"

namespace kl {
namespace {

using test::asked;
using test::errorOf;
using test::Ids;
using test::listOf;
using test::named;
using test::Route;
using test::Step;

class Steps : public test::NotingTable<Step> {
 public:
  Steps() { getLooper()->addHandler(7, this); }
  ~Steps() override { getLooper()->removeHandler(7); }

  unsigned int put(const std::string& name, unsigned int next = BADID) {
    message m = named(asked(CMD_ADDOBJ), name);
    if (next != BADID) m.insert(STD_NEXTID, next);
    return cmdAddObj(m).get(STD_ID, 0);
  }
  message move(unsigned int id, unsigned int next = BADID) {
    message m = asked(CMD_MOVEOBJ, id);
    if (next != BADID) m.insert(STD_NEXTID, next);
    return cmdMoveObj(m, id);
  }
  unsigned int nextOf(unsigned int id) { return cmdGetObj(message(), id).get(STD_NEXTID, BADID); }
};

struct TableOrder : ::testing::Test {
  test::Connected net;
  Steps steps;
};

TEST_F(TableOrder, NewOnesComeLastOrInFrontOfTheOneTheyName) {
  steps.put("a");
  steps.put("b");
  steps.put("c", 1);
  steps.put("d", 2);
  EXPECT_EQ(listOf(steps), "3:c 1:a 4:d 2:b");
  EXPECT_EQ(errorOf(steps.cmdAddObj([] {
              message m = named(asked(CMD_ADDOBJ), "e");
              m.insert(STD_NEXTID, 9);
              return m;
            }())),
            ERROR_UNKNOWNNEXTID);
  EXPECT_EQ(steps.nextOf(3), 1u);
  EXPECT_EQ(steps.nextOf(2), BADID);
}

TEST_F(TableOrder, ObjectsMoveInFrontOfOthersOrToTheEnd) {
  for (const char* name : {"a", "b", "c"}) steps.put(name);
  EXPECT_EQ(steps.move(3, 1), message());
  EXPECT_EQ(listOf(steps), "3:c 1:a 2:b");
  EXPECT_EQ(steps.move(3), message());
  EXPECT_EQ(listOf(steps), "1:a 2:b 3:c");
  EXPECT_EQ(steps.move(1, 3), message());
  EXPECT_EQ(listOf(steps), "2:b 1:a 3:c");
  EXPECT_EQ(errorOf(steps.move(9)), ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(steps.move(1, 9)), ERROR_UNKNOWNNEXTID);
  steps.take();
  EXPECT_EQ(steps.move(1, 3), message());
  EXPECT_EQ(steps.move(1, 1), message());
  EXPECT_EQ(steps.take(), "") << "nothing moved";
}

TEST_F(TableOrder, SubscribersHearOfAllWhoseNextIsAnother) {
  for (const char* name : {"a", "b", "c", "d", "e"}) steps.put(name);
  test::subscribeTo(steps, {8});
  steps.move(2, 5);
  steps.sendChanges();
  EXPECT_EQ(listOf(net.loader.receive()), "1:a 2:b 4:d") << "each behind its next one";
  steps.cmdRemoveObj(asked(CMD_REMOVEOBJ, 3), 3);
  steps.sendChanges();
  EXPECT_EQ(listOf(net.loader.receive()), "1:a 3+");
}

TEST_F(TableOrder, AMoveCanBeUndone) {
  for (const char* name : {"a", "b", "c"}) steps.put(name);
  steps.makeUndoable();
  steps.move(1);
  message undo(net.loader.receive().get(UNDO_MESSAGE, {}));
  EXPECT_EQ(undo.get(SYS_CMD, 0), CMD_MOVEOBJ);
  steps.cmdMoveObj(undo, undo.get(STD_ID, 0));
  EXPECT_EQ(listOf(steps), "1:a 2:b 3:c");
}

TEST_F(TableOrder, ARemovedOneComesBackToItsPlace) {
  for (const char* name : {"a", "b", "c"}) steps.put(name);
  steps.makeUndoable();
  steps.cmdRemoveObj(asked(CMD_REMOVEOBJ, 2), 2);
  steps.cmdAddObj(message(net.loader.receive().get(UNDO_MESSAGE, {})));
  EXPECT_EQ(listOf(steps), "1:a 2:b 3:c");
}

TEST_F(TableOrder, AWalkGoesOnInTheOrderOfTheTable) {
  for (const char* name : {"a", "b", "c"}) steps.put(name);
  steps.move(1);
  const message part = steps.cmdGetAll(message(), BADID, 2);
  EXPECT_EQ(listOf(part), "2:b 3:c");
  EXPECT_EQ(part.get(STD_GETALLID, 0), 1u);
  EXPECT_EQ(listOf(steps.cmdGetAll(message(), 1, 0)), "1:a");
  EXPECT_EQ(errorOf(steps.cmdGetAll(message(), 9, 0)), ERROR_UNKNOWNID);
}

TEST_F(TableOrder, NextOnesAgreeWithTheWalkWhateverIsDone) {
  std::mt19937 random(20);
  for (unsigned int step = 0; step < 300; ++step) {
    const auto ids = steps.ids();
    const unsigned int some = ids.empty() ? BADID : ids[random() % ids.size()];
    const unsigned int other = ids.empty() ? BADID : ids[random() % ids.size()];
    switch (random() % 4) {
      case 0: steps.put("x"); break;
      case 1: steps.put("y", some); break;
      case 2: steps.move(some, other); break;
      default: steps.cmdRemoveObj(asked(CMD_REMOVEOBJ, some), some);
    }
    const auto now = steps.ids();
    for (std::size_t i = 0; i < now.size(); ++i)
      ASSERT_EQ(steps.nextOf(now[i]), i + 1 < now.size() ? now[i + 1] : BADID) << "step " << step;
  }
}

// --- In a store.

const std::string kStore = underRoot("/kelo/table-test/rows");

struct TableStore : ::testing::Test {
  TableStore() { std::filesystem::remove_all(underRoot("/kelo/table-test")); }
  test::Connected net;
};

TEST_F(TableStore, ComesBack) {
  {
    Steps steps;
    steps.keepIn(kStore);
    for (const char* name : {"a", "b", "c", "d"}) steps.put(name);
    steps.move(3, 1);
    steps.cmdRemoveObj(asked(CMD_REMOVEOBJ, 2), 2);
    steps.cmdSetObj(named(asked(CMD_SETOBJ, 1), "A"), 1);
  }
  Steps steps;
  steps.keepIn(kStore);
  EXPECT_EQ(listOf(steps), "3:c 1:A 4:d");
  EXPECT_EQ(steps.take(), "+c +A +d");
  EXPECT_EQ(steps.put("e"), 5u);
}

TEST_F(TableStore, WithoutAnOrderToo) {
  {
    test::NotingTable<Route> table;
    table.keepIn(kStore);
    table.add(Route{{.name = "a"}});
    table.add(Route{{.name = "b"}});
    table.remove(1);
  }
  test::NotingTable<Route> table;
  table.keepIn(kStore);
  EXPECT_EQ(listOf(table), "2:b");
  EXPECT_EQ(table.take(), "+b");
}

// As klgen makes it of a description with `store` and `undo`.
struct KeptRoute : test::RouteFields {
  static KeptRoute fromMessage(const message& m) { return from<KeptRoute>(m); }
  static constexpr ObjectRules kRules{"route", 34,        7,           kAll | ObjectRules::kUndone,
                                      kFields, kCommands, "table-test"};
};

TEST_F(TableStore, IsWhereTheDescriptionSays) {
  Table<KeptRoute> table;
  table.keep();
  table.add(KeptRoute{{.name = "a"}});
  EXPECT_EQ(Store(underRoot("/kelo/table-test/route"), 1).get(1).get(test::NAME, ""), "a");
}

TEST_F(TableStore, AFirstStartIsNoFailure) {
  testing::internal::CaptureStdout();
  Table<Route>().keepIn(kStore);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(TableStore, ChangesAreReportedWhereTheDescriptionSaysSo) {
  Table<KeptRoute> table;
  net.looper->addHandler(7, &table);
  EXPECT_FALSE(isError(table.cmdAddObj(named(asked(CMD_ADDOBJ), "a"))));
  EXPECT_EQ(net.loader.receive().get(UNDO_DESCRIPTION, ""), "route 1 added");
  net.looper->removeHandler(7);
}

TEST_F(TableStore, ABrokenOrderLosesNoObject) {
  {
    Store store(kStore, 1);
    const auto entry = [&](unsigned int id, unsigned int next) {
      message m = named(message(), std::to_string(id));
      if (next != BADID) m.insert(STD_NEXTID, next);
      store.set(id, m);
    };
    entry(1, 2);
    entry(2, 1);  // a ring
    entry(3, 3);
    entry(4, 99);  // its next is not there
    entry(5, 4);
    entry(6, 4);  // in front of the same
    entry(7, BADID);
  }
  Steps steps;
  steps.keepIn(kStore);
  EXPECT_EQ(steps.size(), 7u);
  auto ids = steps.ids();
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(ids, (Ids{1, 2, 3, 4, 5, 6, 7}));
  EXPECT_NE(listOf(steps).find("5:5 4:4"), std::string::npos) << listOf(steps);
}

// An object that comes back may go at once.
TEST_F(TableStore, MayBeChangedWhileItComesBack) {
  struct Picky : Table<Route> {
    void added(const Route& route) override {
      if (route.name == "a") remove(*route.id);
    }
  };
  {
    Table<Route> table;
    table.keepIn(kStore);
    for (const char* name : {"a", "b", "a"}) table.add(Route{{.name = name}});
  }
  Picky table;
  table.keepIn(kStore);
  EXPECT_EQ(listOf(table), "2:b");
  Table<Route> again;
  again.keepIn(kStore);
  EXPECT_EQ(listOf(again), "2:b");
}

// --- Over a leave.

struct Kept : test::NotingTable<Step> {
  Kept() { keepOverLeave(); }
};

TEST(TableLeave, ComesBackInItsOrder) {
  test::Connected net;
  message data;
  {
    Kept table;
    net.looper->addHandler(7, &table);
    for (const char* name : {"a", "b", "c"}) table.add(Step{{.name = name}});
    table.cmdMoveObj(asked(CMD_MOVEOBJ, 1), 1);
    test::subscribeTo(table, {8});
    table.savePermData(data);
    net.looper->removeHandler(7);
  }
  Kept table;
  table.loadPermData(data);
  EXPECT_EQ(listOf(table), "2:b 3:c 1:a");
  EXPECT_EQ(table.take(), "+b +c +a");
  EXPECT_EQ(table.getSubscriptions().size(), 1u);
}

TEST(TableLeave, OneThatDoesNotKeepLeavesNothingBehind) {
  test::Connected net;
  Table<Route> table;
  table.add(Route{{.name = "a"}});
  message data;
  table.savePermData(data);
  EXPECT_EQ(data, message());
}

TEST(TableLeave, ATableThatIsTheServiceComesBackToo) {
  using Service = Table<Route, Looper>;
  message data;
  {
    test::ConnectedAs<Service> net;
    net.looper->keepOverLeave();
    net.looper->add(Route{{.name = "a"}});
    net.looper->savePermData(data);
  }
  message ready;
  ready.insert(READY_DATA, data.flattened());
  test::ConnectedAs<Service> net(ready);
  EXPECT_EQ(net.looper->size(), 0u);
  net.looper->keepOverLeave();
  EXPECT_EQ(listOf(*net.looper), "1:a");
}

TEST(TableLeave, OneThatIsTooLargeKeepsItsProcess) {
  test::Connected net;
  net.looper->setupLeave(1);
  net.looper->unblockLeave();  // as run() does
  Kept table;
  net.looper->addHandler(7, &table);
  EXPECT_TRUE(net.looper->canLeave());
  const auto large = [](unsigned int id) { return Step{{.id = id, .name = std::string(12000, 'x')}}; };
  for (const unsigned int id : {1, 2}) table.add(large(id));
  EXPECT_TRUE(net.looper->canLeave());
  table.add(large(3));
  EXPECT_FALSE(net.looper->canLeave());
  table.add(large(4));
  table.remove(1);
  EXPECT_FALSE(net.looper->canLeave());
  table.remove(2);
  EXPECT_TRUE(net.looper->canLeave());
  {
    Kept other;
    for (const unsigned int id : {1, 2, 3}) other.add(large(id));
    EXPECT_FALSE(net.looper->canLeave());
  }
  EXPECT_TRUE(net.looper->canLeave());
  net.looper->removeHandler(7);
}

}  // namespace
}  // namespace kl
