// The commands of tables: in memory, and elsewhere.

#include "kl/table.h"

#include <gtest/gtest.h>

#include "kl/services.h"
#include "tests/lib/tables/route.h"

namespace kl {
namespace {

using test::asked;
using test::errorOf;
using test::Ids;
using test::listOf;
using test::named;
using test::Route;
using test::textOf;

class Routes : public test::NotingTable<Route> {
 public:
  void check(const Route& route, Problems& problems) override {
    if (route.name == "taken") problems.add(test::NAME, "is taken");
  }
};

struct TableTest : ::testing::Test {
  TableTest() { net.looper->addHandler(7, &table); }
  ~TableTest() override { net.looper->removeHandler(7); }

  message add(const std::string& name, unsigned int id = BADID) {
    return table.cmdAddObj(named(asked(CMD_ADDOBJ, id), name));
  }
  message set(unsigned int id, const message& fields) {
    message m = asked(CMD_SETOBJ, id);
    m.merge(fields);
    return table.cmdSetObj(m, id);
  }
  message get(unsigned int id) { return table.cmdGetObj(asked(CMD_GETOBJ, id), id); }
  message remove(unsigned int id) { return table.cmdRemoveObj(asked(CMD_REMOVEOBJ, id), id); }
  message notified() {
    table.sendChanges();
    return net.loader.receive();
  }
  // The undo message of the record that was sent; its text in undoText.
  message undo() {
    const message record = net.loader.receive();
    EXPECT_EQ(record.get(SYS_TO, {}), Ids{SERVICE_UNDO});
    undoText = record.get(UNDO_DESCRIPTION, "");
    message m(record.get(UNDO_MESSAGE, {}));
    m.insert(SYS_FROM, {9});
    return m;
  }
  message carryOut(const message& m) {
    const unsigned int id = m.get(STD_ID, BADID);
    switch (m.get(SYS_CMD, 0)) {
      case CMD_ADDOBJ: return table.cmdAddObj(m);
      case CMD_SETOBJ: return table.cmdSetObj(m, id);
      default: return table.cmdRemoveObj(m, id);
    }
  }

  test::Connected net;
  Routes table;
  std::string undoText;
};

TEST_F(TableTest, GivesNewObjectsIdsThatWereNotUsedForLong) {
  EXPECT_EQ(add("a").get(STD_ID, 0), 1u);
  EXPECT_EQ(add("b").get(STD_ID, 0), 2u);
  EXPECT_EQ(remove(2), message());
  EXPECT_EQ(add("c").get(STD_ID, 0), 3u);
  EXPECT_EQ(add("d", 2).get(STD_ID, 0), 2u);
  EXPECT_EQ(add("e", 0).get(STD_ID, 0), 4u);
  EXPECT_EQ(listOf(table), "1:a 2:d 3:c 4:e");
  EXPECT_EQ(table.size(), 4u);
  EXPECT_EQ(table.cmdGetCount(message()).get(STD_GETALLNO, 0), 4u);
}

TEST_F(TableTest, AnIdThatIsTakenIsNotGivenAgain) {
  add("a", 1);
  EXPECT_EQ(errorOf(add("b", 1)), ERROR_EXISTS);
  EXPECT_EQ(add("b").get(STD_ID, 0), 2u);
  EXPECT_EQ(listOf(table), "1:a 2:b");
}

TEST_F(TableTest, AnObjectAlwaysHasItsId) {
  add("a");
  EXPECT_EQ(get(1).get(STD_ID, 0), 1u);
  EXPECT_EQ(table.getObject(1).get(STD_ID, 0), 1u);
  EXPECT_EQ(table.getObject(2).get(STD_ID, 0), 2u);
  EXPECT_TRUE(table.getObject(2).has(STD_DEAD));
}

TEST_F(TableTest, WhatIsNotThereIsUnknown) {
  EXPECT_EQ(errorOf(get(1)), ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(set(1, message())), ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(remove(1)), ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(get(BADID)), ERROR_UNKNOWNID);
}

TEST_F(TableTest, ReadsInPartsFromALowerBoundOn) {
  for (const char* name : {"a", "b", "c"}) add(name);
  const message first = table.cmdGetAll(message(), BADID, 2);
  EXPECT_EQ(listOf(first), "1:a 2:b");
  EXPECT_EQ(first.get(STD_GETALLID, 0), 3u);
  remove(2);
  EXPECT_EQ(listOf(table.cmdGetAll(message(), 2, 0)), "3:c");
  EXPECT_TRUE(table.cmdGetAll(message(), 9, 0).has(STD_OBJS));
}

TEST_F(TableTest, ASetChangesWhatItNamesAndLeavesTheRest) {
  add("a");
  message fields;
  fields.insert(test::METRIC, 5);
  fields.insert(test::LATER, "newer");
  EXPECT_EQ(set(1, fields), message());
  EXPECT_EQ(get(1).get(test::METRIC, 0), 5u);
  EXPECT_EQ(get(1).get(test::LATER, ""), "newer");
  EXPECT_EQ(get(1).get(test::NAME, ""), "a");
  message clear;
  clear.insert(TABLE_CLEARS, {test::METRIC, STD_ID});
  EXPECT_EQ(set(1, clear), message());
  EXPECT_FALSE(get(1).has(test::METRIC));
  EXPECT_EQ(get(1).get(STD_ID, 0), 1u);
}

TEST_F(TableTest, TakesOnlyWhatTheCommandTakes) {
  message m = named(asked(CMD_ADDOBJ), "a");
  m.insert(test::BYTES, 3);
  m.insert(SYS_USER, "bob");
  m.insert(STD_UNDOID, 4);
  m.insert(STD_NEXTID, 7);
  table.cmdAddObj(m);
  message expected = named(message(), "a");
  expected.insert(STD_ID, 1);
  EXPECT_EQ(get(1), expected);
}

TEST_F(TableTest, ARefusedRequestChangesNothing) {
  EXPECT_EQ(textOf(add("")), "name: at least 1 bytes");
  EXPECT_EQ(textOf(table.cmdAddObj(asked(CMD_ADDOBJ))), "name: missing");
  EXPECT_EQ(textOf(add("taken")), "name: is taken");
  EXPECT_EQ(table.size(), 0u);
  add("a");
  message fields;
  fields.insert(test::METRIC, 500);
  fields.insert(test::UP, true);
  EXPECT_EQ(textOf(set(1, fields)), "metric: at most 100");
  message clear;
  clear.insert(TABLE_CLEARS, {test::NAME});
  EXPECT_EQ(textOf(set(1, clear)), "name: missing");
  EXPECT_FALSE(get(1).has(test::UP));
  EXPECT_EQ(table.take(), "+a");
}

TEST_F(TableTest, AnObjectThatWouldFillAFrameIsRefused) {
  message m = named(asked(CMD_ADDOBJ), "a");
  m.insert(test::LATER, std::string(17000, 'x'));
  EXPECT_EQ(errorOf(table.cmdAddObj(m)), ERROR_TOOBIG);
}

TEST_F(TableTest, NoMoreThanTheLimitFindRoom) {
  table.limitTo(1);
  add("a");
  EXPECT_EQ(textOf(add("b")), "no room for more than 1");
  EXPECT_EQ(set(1, named(message(), "c")), message());
  EXPECT_EQ(table.add(Route{{.name = "d"}}), BADID);
}

TEST_F(TableTest, TheServiceHearsOfEachChange) {
  add("a");
  set(1, named(message(), "b"));
  set(1, named(message(), "b"));
  remove(1);
  EXPECT_EQ(table.take(), "+a a>b -b");
}

TEST_F(TableTest, SubscribersHearOfEachChangeButTheirOwn) {
  test::subscribeTo(table, {9});
  test::subscribeTo(table, {8});
  add("a");
  add("b");
  remove(2);
  const message m = notified();
  EXPECT_EQ(m.get(SYS_TO, {}), Ids{8});
  EXPECT_EQ(listOf(m), "1:a 2+");
  set(1, named(message(), "a"));
  table.sendChanges();
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(TableTest, TheServicesOwnChangesAreToldToAll) {
  test::subscribeTo(table, {9});
  EXPECT_EQ(table.add(Route{{.name = "a"}}), 1u);
  EXPECT_EQ(table.add(Route{{.id = 1, .name = "b"}}), BADID);
  EXPECT_EQ(listOf(notified()), "1:a");
  EXPECT_TRUE(table.set(Route{{.id = 1, .name = "b", .metric = 900}}));
  EXPECT_FALSE(table.set(Route{{.id = 2, .name = "b"}}));
  EXPECT_EQ(listOf(notified()), "1:b");
  EXPECT_TRUE(table.remove(1));
  EXPECT_FALSE(table.remove(1));
  EXPECT_EQ(listOf(notified()), "1+");
  EXPECT_EQ(table.take(), "+a a>b -b");
}

TEST_F(TableTest, IsWalkedWhileItChanges) {
  for (const char* name : {"a", "b", "c"}) add(name);
  std::string seen;
  table.forEach([&](const Route& route) {
    seen += route.name;
    table.remove(2);
    table.add(Route{{.name = "d"}});
  });
  EXPECT_EQ(seen, "ac");
  EXPECT_EQ(table.find(3)->name, "c");
  EXPECT_FALSE(table.find(2));
}

TEST_F(TableTest, EachChangeCanBeUndoneAndDoneAgain) {
  table.makeUndoable();
  message first = named(asked(CMD_ADDOBJ), "a");
  first.insert(test::HOPS, {1, 2});
  table.cmdAddObj(first);
  const message unadd = undo();
  EXPECT_EQ(undoText, "route 1 added");
  const message before = get(1);
  message fields = named(message(), "b");
  fields.insert(test::METRIC, 5);
  fields.insert(test::HOPS, {3});
  set(1, fields);
  const message unset = undo();
  EXPECT_EQ(undoText, "route 1 changed");
  const message after = get(1);
  EXPECT_EQ(carryOut(unset), message());
  EXPECT_EQ(get(1), before);
  EXPECT_EQ(carryOut(undo()), message());
  EXPECT_EQ(get(1), after);
  (void)undo();
  remove(1);
  const message unremove = undo();
  EXPECT_EQ(undoText, "route 1 removed");
  EXPECT_FALSE(isError(carryOut(unremove)));
  EXPECT_EQ(get(1), after);
  (void)undo();
  EXPECT_EQ(carryOut(unadd), message());
  EXPECT_EQ(table.size(), 0u);
}

TEST_F(TableTest, AnUndoLeavesWhatWasChangedSince) {
  table.makeUndoable();
  add("a");
  (void)undo();
  message fields;
  fields.insert(test::METRIC, 5);
  set(1, fields);
  const message unset = undo();
  set(1, named(message(), "b"));
  (void)undo();
  carryOut(unset);
  EXPECT_EQ(get(1).get(test::NAME, ""), "b");
  EXPECT_FALSE(get(1).has(test::METRIC));
}

TEST_F(TableTest, WhatIsNotAskedForIsNotReported) {
  table.makeUndoable();
  table.add(Route{{.name = "a"}});
  table.remove(1);
  EXPECT_TRUE(net.loader.isSilent());
  add("b", 1);
  (void)undo();
  set(1, named(message(), "b"));
  EXPECT_TRUE(net.loader.isSilent());
  table.clear(asked(test::CMD_FLUSH));
  EXPECT_EQ(undo().get(SYS_CMD, 0), CMD_ADDOBJ);
}

TEST_F(TableTest, NoUndoIsReportedUnlessItIsAskedFor) {
  add("a");
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(TableTest, CommandsOfTheServicesOwnHaveTheirRight) {
  message m = asked(test::CMD_FLUSH);
  m.insert(SYS_POLICY, RIGHT_READ);
  EXPECT_FALSE(table.checkPolicy(m));
  m.insert(SYS_POLICY, RIGHT_CHANGE);
  EXPECT_TRUE(table.checkPolicy(m));
}

TEST_F(TableTest, MayBeDestroyedWhenItIsTold) {
  struct Ending : Table<Route> {
    void added(const Route&) override { delete this; }
  };
  auto* ending = new Ending;
  net.looper->addHandler(8, ending);
  message m = test::requestTo({8}, CMD_ADDOBJ);
  m.insert(test::NAME, "a");
  net.loader.send(m);
  net.wake();
  EXPECT_EQ(net.loader.receive().get(STD_ID, 0), 1u);
  EXPECT_FALSE(net.looper->hasHandler(8));
}

// --- Objects elsewhere.

struct Row : test::RouteFields {
  static Row fromMessage(const message& m) { return from<Row>(m); }
  static constexpr ObjectRules kRules{"row", 34, 7, kAll | ObjectRules::kMove, kFields, {}};
};

struct ReadOnly : test::RouteFields {
  static ReadOnly fromMessage(const message& m) { return from<ReadOnly>(m); }
  static constexpr ObjectRules kRules{"row", 34, 7, 0, kFields, {}};
};

template <class Object>
class Elsewhere : public TableView<Object> {
 public:
  using typename TableView<Object>::Take;
  Error list(unsigned int from, Take& take) override {
    if (isBroken) return {ERROR_FAILED, "broken"};
    for (auto at = names.lower_bound(from); at != names.end(); ++at)
      if (!take(at->first, made(at->second))) break;
    return {};
  }
  Result<Object> find(unsigned int id) override {
    if (isBroken) return Error{ERROR_FAILED, "broken"};
    const auto at = names.find(id);
    if (at == names.end()) return Error{ERROR_UNKNOWNID};
    return made(at->second);
  }
  Error put(const Object& object) override {
    names[object.id.value()] = object.name;
    return {};
  }
  Error erase(unsigned int id) override {
    names.erase(id);
    return {};
  }
  unsigned int freeId() override { return nextId; }

  static Object made(const std::string& name) {
    Object object;
    object.name = name;
    return object;
  }

  std::map<unsigned int, std::string> names{{3, "a"}, {5, "b"}};
  unsigned int nextId = BADID;
  bool isBroken = false;
};

struct TableViewTest : ::testing::Test {
  TableViewTest() { net.looper->addHandler(7, &view); }
  ~TableViewTest() override { net.looper->removeHandler(7); }
  test::Connected net;
  Elsewhere<Row> view;
};

TEST_F(TableViewTest, ShowsWhatIsElsewhere) {
  EXPECT_EQ(listOf(view), "3:a 5:b");
  EXPECT_EQ(listOf(view.cmdGetAll(message(), 4, 0)), "5:b");
  EXPECT_EQ(view.cmdGetAll(message(), BADID, 1).get(STD_GETALLID, 0), 5u);
  EXPECT_EQ(view.cmdGetCount(message()).get(STD_GETALLNO, 0), 2u);
  EXPECT_EQ(view.cmdGetObj(message(), 5).get(test::NAME, ""), "b");
  EXPECT_EQ(view.cmdGetObj(message(), 5).get(STD_ID, 0), 5u);
  EXPECT_EQ(errorOf(view.cmdGetObj(message(), 4)), ERROR_UNKNOWNID);
}

TEST_F(TableViewTest, ChangesWhatIsElsewhere) {
  EXPECT_EQ(errorOf(view.cmdAddObj(named(asked(CMD_ADDOBJ), "c"))), ERROR_MISSING) << "who knows its id?";
  view.nextId = 9;
  EXPECT_EQ(view.cmdAddObj(named(asked(CMD_ADDOBJ), "c")).get(STD_ID, 0), 9u);
  EXPECT_EQ(view.cmdSetObj(named(asked(CMD_SETOBJ, 3), "d"), 3), message());
  EXPECT_EQ(view.cmdRemoveObj(asked(CMD_REMOVEOBJ, 5), 5), message());
  EXPECT_EQ(listOf(view), "3:d 9:c");
  EXPECT_EQ(errorOf(view.cmdMoveObj(asked(CMD_MOVEOBJ, 3), 3)), ERROR_NOTIMP);
}

TEST_F(TableViewTest, GivesTheErrorsOfWhoeverHasTheObjects) {
  view.isBroken = true;
  EXPECT_EQ(textOf(view.cmdGetAll(message(), BADID, 0)), "broken");
  EXPECT_EQ(textOf(view.cmdGetObj(message(), 3)), "broken");
  EXPECT_EQ(textOf(view.cmdGetCount(message())), "broken");
  EXPECT_EQ(textOf(view.cmdSetObj(named(asked(CMD_SETOBJ, 3), "d"), 3)), "broken");
}

TEST_F(TableViewTest, TellsItsSubscribers) {
  test::subscribeTo(view, {8});
  view.cmdRemoveObj(asked(CMD_REMOVEOBJ, 5), 5);
  view.notifyChange(3);
  view.sendChanges();
  EXPECT_EQ(listOf(net.loader.receive()), "3:a 5+");
}

TEST_F(TableViewTest, WhatTheDescriptionHasNotIsNotImplemented) {
  Elsewhere<ReadOnly> other;
  EXPECT_EQ(errorOf(other.cmdAddObj(named(asked(CMD_ADDOBJ, 9), "c"))), ERROR_NOTIMP);
  EXPECT_EQ(errorOf(other.cmdSetObj(named(asked(CMD_SETOBJ, 3), "c"), 3)), ERROR_NOTIMP);
  EXPECT_EQ(errorOf(other.cmdRemoveObj(asked(CMD_REMOVEOBJ, 3), 3)), ERROR_NOTIMP);
  EXPECT_EQ(listOf(other), "3:a 5:b");
}

}  // namespace
}  // namespace kl
