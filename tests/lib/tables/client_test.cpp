// The client, with the service and the loader played by the test.

#include "kl/client.h"

#include <gtest/gtest.h>

#include "tests/lib/tables/fixture.h"
#include "tests/lib/tables/route.h"
#include "tests/support/calls/scripted_calls.h"

namespace kl {
namespace {

using test::answerTo;
using test::Ids;
using test::Route;

struct RouteFlush {
  static constexpr unsigned int kCommand = test::CMD_FLUSH;
  using Request = NoFields;
  using Reply = Route;
};

// Of a service that answers itself.
struct Whole : test::RouteFields {
  static Whole fromMessage(const message& m) { return from<Whole>(m); }
  static constexpr ObjectRules kRules{"whole", 35, ObjectRules::kNone, 0, kFields, {}};
};

// Of a service without a number.
struct Homeless : test::RouteFields {
  static Homeless fromMessage(const message& m) { return from<Homeless>(m); }
  static constexpr ObjectRules kRules{"homeless", ObjectRules::kNone, ObjectRules::kNone, 0, kFields, {}};
};
static_assert(!std::is_constructible_v<Client<Homeless>, Handler&>);
static_assert(std::is_constructible_v<Client<Homeless>, Handler&, Ids>);

struct ClientTest : ::testing::Test {
  ClientTest() { net.looper->addHandler(5, &handler); }
  ~ClientTest() override { net.looper->removeHandler(5); }

  void answer(message body) {
    net.loader.send(answerTo(request, body));
    net.wake();
  }
  // The next request of the client.
  unsigned int asked() {
    request = net.loader.receive();
    return request.get(SYS_CMD, 0);
  }
  template <class T>
  auto note() {
    return [this](Result<T> result) { said += (said.empty() ? "" : " ") + word(result); };
  }
  static std::string word(const Result<Route>& r) { return r ? r->name : r.error().describe(); }
  static std::string word(const Result<unsigned int>& r) {
    return r ? std::to_string(*r) : r.error().describe();
  }
  static std::string word(const Result<NoFields>& r) { return r.error().describe(); }
  static std::string word(const Result<std::vector<Route>>& r) {
    if (!r) return r.error().describe();
    std::string names;
    for (const Route& route : *r) names += route.name;
    return names;
  }

  test::ScriptedClock clock{1000};
  test::Connected net;
  Handler handler;
  std::unique_ptr<Client<Route>> client = std::make_unique<Client<Route>>(handler);
  message request;
  std::string said;
};

TEST_F(ClientTest, AsksWhereTheDescriptionSays) {
  client->get(4, note<Route>());
  EXPECT_EQ(asked(), CMD_GETOBJ);
  EXPECT_EQ(request.get(SYS_TO, {}), (Ids{34, 7}));
  EXPECT_EQ(request.get(SYS_FROM, {}), Ids{5});
  EXPECT_EQ(request.get(STD_ID, 0), 4u);
  Client<Whole>(handler).get(1, nullptr);
  EXPECT_EQ(asked(), CMD_GETOBJ);
  EXPECT_EQ(request.get(SYS_TO, {}), Ids{35});
  Client<Route>(handler, {36, 2}).count(nullptr);
  EXPECT_EQ(asked(), CMD_GETCOUNT);
  EXPECT_EQ(request.get(SYS_TO, {}), (Ids{36, 2}));
}

TEST_F(ClientTest, GivesWhatTheServiceGives) {
  client->get(4, note<Route>());
  asked();
  answer(test::named(message(), "a"));
  client->count(note<unsigned int>());
  asked();
  message count;
  count.insert(STD_GETALLNO, 3);
  answer(count);
  client->call<RouteFlush>({}, note<Route>());
  EXPECT_EQ(asked(), test::CMD_FLUSH);
  answer(test::named(message(), "b"));
  EXPECT_EQ(said, "a 3 b");
  EXPECT_TRUE(client->isIdle());
}

TEST_F(ClientTest, AnObjectThatWasReadCarriesNothingOfItsWay) {
  Route route;
  client->get(4, [&](Result<Route> result) { route = *result; });
  asked();
  answer(test::named(test::object(4), "a"));
  EXPECT_EQ(route.toMessage(), test::named(test::object(4), "a"));
}

TEST_F(ClientTest, ErrorsAreValues) {
  client->get(4, note<Route>());
  asked();
  answer(errorMsg(ERROR_UNKNOWNID, ""));
  client->set(Route{{.id = 4, .name = ""}}, note<NoFields>());
  asked();
  answer(errorMsg(ERROR_MISSING, "name: missing"));
  client->getAll(note<std::vector<Route>>());
  asked();
  answer(errorMsg(ERROR_BUSY, ""));
  EXPECT_EQ(said, "std failure: unknown id (4) name: missing (5) std failure: busy (12)");
}

TEST_F(ClientTest, ReadsAWholeTablePartByPart) {
  client->getAll(note<std::vector<Route>>());
  EXPECT_EQ(asked(), CMD_GETALL);
  EXPECT_FALSE(request.has(STD_GETALLID));
  message part;
  part.insert(STD_OBJS,
              {test::named(test::object(1), "a").flattened(), test::named(test::object(2), "b").flattened()});
  part.insert(STD_GETALLID, 3);
  answer(part);
  EXPECT_EQ(said, "");
  EXPECT_EQ(asked(), CMD_GETALL);
  EXPECT_EQ(request.get(STD_GETALLID, 0), 3u);
  part.remove(STD_GETALLID);
  answer(part);
  EXPECT_EQ(said, "abab");
  EXPECT_TRUE(client->isIdle());
}

TEST_F(ClientTest, ChangesObjects) {
  client->add(Route{{.name = "a"}}, note<unsigned int>());
  EXPECT_EQ(asked(), CMD_ADDOBJ);
  EXPECT_EQ(request.get(test::NAME, ""), "a");
  answer(test::object(8));
  client->set(Route{{.id = 8, .name = "b"}}, note<NoFields>(), {test::METRIC});
  EXPECT_EQ(asked(), CMD_SETOBJ);
  EXPECT_EQ(request.get(STD_ID, 0), 8u);
  EXPECT_EQ(request.get(TABLE_CLEARS, {}), Ids{test::METRIC});
  answer(message());
  client->move(8, 3, note<NoFields>());
  EXPECT_EQ(asked(), CMD_MOVEOBJ);
  EXPECT_EQ(request.get(STD_NEXTID, 0), 3u);
  answer(message());
  client->move(8, BADID);
  asked();
  EXPECT_FALSE(request.has(STD_NEXTID));
  answer(message());
  client->remove(8);
  EXPECT_EQ(asked(), CMD_REMOVEOBJ);
  answer(message());
  EXPECT_EQ(said, "8 ok ok");
}

TEST_F(ClientTest, ATimeOutIsAnError) {
  client->setTimeout(std::chrono::seconds(1));
  client->get(4, note<Route>());
  clock.advance(100);
  net.looper->runTimers();
  EXPECT_EQ(said, "std failure: timeout (13)");
  client->setTimeout(5);
  client->remove(4, note<NoFields>());
  said.clear();
  clock.advance(5);
  net.looper->runTimers();
  EXPECT_EQ(said, "std failure: timeout (13)");
}

TEST_F(ClientTest, ItsEndCancelsItsCalls) {
  client->get(4, note<Route>());
  asked();
  const message first = request;
  client->get(5, note<Route>());
  EXPECT_FALSE(client->isIdle());
  client.reset();
  answer(message());
  clock.advance(10000);
  net.looper->runTimers();
  EXPECT_EQ(said, "");
}

TEST_F(ClientTest, ACallbackMayAskAgainOrEndTheClient) {
  client->get(4, [this](Result<Route>) { client->get(5, note<Route>()); });
  asked();
  answer(message());
  EXPECT_EQ(asked(), CMD_GETOBJ);
  EXPECT_EQ(request.get(STD_ID, 0), 5u);
  client->count([this](Result<unsigned int>) { client.reset(); });
  asked();
  answer(message());
  EXPECT_EQ(client, nullptr);
  EXPECT_EQ(said, "");
}

TEST_F(ClientTest, TwoWordsNeedNoAllocationOfTheirOwn) {
  auto two = [this, &route = request](Result<Route>) { (void)route, (void)this; };
  EXPECT_TRUE((Client<Route>::Done<Route>::fits<decltype(two)>()));
}

}  // namespace
}  // namespace kl
