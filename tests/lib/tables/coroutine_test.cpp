// Tasks: what they wait for, and every way in which they end.

#include "kl/coroutine.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/lib/tables/fixture.h"
#include "tests/lib/tables/route.h"
#include "tests/support/calls/scripted_calls.h"

namespace kl {
namespace {

using namespace std::chrono_literals;
using test::answerTo;
using test::Ids;
using test::Route;

struct RouteReset {
  static constexpr unsigned int kCommand = test::CMD_FLUSH;
  using Request = NoFields;
  using Reply = Route;
};

// A variable is taken; what is built in the expression is not.
template <class Client>
concept TakesTemporaries = requires(Client client) {
  client.add(Route{});
}
|| requires(Client client) { client.set(Route{}); }
|| requires(Client client) { client.add({}); };
template <class Client>
concept TakesVariables = requires(Client client, const Route route) {
  client.add(route);
  client.set(route);
};
static_assert(TakesVariables<TaskClient<Route>> && !TakesTemporaries<TaskClient<Route>>);

// Says when it ends.
struct Farewell {
  std::string& said;
  std::string text;
  ~Farewell() { said += text; }
};

// A handler that is asked to look a route up, and does so in tasks.
class Door : public Handler {
 public:
  explicit Door(std::string& said) : said_(said) {}

  Task look(Tasks&, unsigned int id) {
    const Farewell farewell{said_, " bye"};
    const Result<Route> route = co_await routes_.get(id);
    said_ += route ? route->name : route.error().describe();
  }
  Task lookTwice(Tasks&, unsigned int first, unsigned int second) {
    const Result<Route> a = co_await routes_.get(first);
    const Result<Route> b = co_await routes_.get(second);
    if (a && b) said_ += a->name + b->name;
  }
  Task everything(Tasks&) {
    said_ += std::to_string(*co_await routes_.count());
    const Result<std::vector<Route>> all = co_await routes_.getAll();
    for (const Route& one : *all) said_ += " " + one.name;
    Route route{{.name = "new"}};
    said_ += " " + std::to_string(*co_await routes_.add(route));
    const Ids clears{test::METRIC};
    route.id = 8;
    said_ += " " + (co_await routes_.set(route, clears)).error().describe();
    said_ += " " + (co_await routes_.move(8, 3)).error().describe();
    said_ += " " + (co_await routes_.remove(8)).error().describe();
    said_ += " " + (co_await routes_.call<RouteReset>())->name;
  }
  Task wait(Tasks&, ThinRunner& loop, std::unique_ptr<int> owned) {
    const Farewell farewell{said_, "|"};
    said_ += "a";
    co_await after(loop, 20ms);
    said_ += "b";
    co_await after(loop, 3);
    said_ += std::to_string(*owned);
  }
  Task raw(Tasks&, message m) {
    const Farewell farewell{said_, "|"};
    const Result<message> reply = co_await ask(*this, m, inTicks(1s));
    said_ += reply ? reply->get(test::NAME, "") : reply.error().describe();
  }
  // Ends its own handler.
  static Task burn(Tasks&, ThinRunner& loop, std::unique_ptr<Door>& door, std::string& said) {
    const Farewell farewell{said, " bye"};
    co_await after(loop, 1);
    door.reset();
    said += "still here";
    co_await after(loop, 1);
    said += " never";
  }

  std::string& said_;
  TaskClient<Route> routes_{*this};
  Tasks tasks_;
};

struct TaskTest : ::testing::Test {
  TaskTest() { net.looper->addHandler(5, door.get()); }
  ~TaskTest() override { net.looper->removeHandler(5); }

  unsigned int asked() {
    request = net.loader.receive();
    return request.get(SYS_CMD, 0);
  }
  void answer(message body) {
    net.loader.send(answerTo(request, body));
    net.wake();
  }
  static message question() {
    message m = test::to({40});
    m.insert(SYS_CMD, CMD_GET);
    return m;
  }
  void pass(unsigned int ticks) {
    clock.advance(ticks);
    net.looper->runTimers();
  }

  test::ScriptedClock clock{1000};
  test::Connected net;
  std::string said;
  std::unique_ptr<Door> door = std::make_unique<Door>(said);
  message request;
};

TEST_F(TaskTest, WaitsForAReplyBesideTheLoop) {
  door->look(door->tasks_, 4);
  EXPECT_FALSE(door->tasks_.isIdle());
  EXPECT_EQ(asked(), CMD_GETOBJ);
  EXPECT_EQ(request.get(STD_ID, 0), 4u);
  EXPECT_EQ(said, "");
  answer(test::named(message(), "a"));
  EXPECT_EQ(said, "a bye");
  EXPECT_TRUE(door->tasks_.isIdle());
  EXPECT_TRUE(door->routes_.isIdle());
}

TEST_F(TaskTest, ErrorsAreResults) {
  door->look(door->tasks_, 4);
  asked();
  answer(errorMsg(ERROR_UNKNOWNID, ""));
  EXPECT_EQ(said, "std failure: unknown id (4) bye");
  said.clear();
  door->routes_.setTimeout(1s);
  door->look(door->tasks_, 4);
  pass(100);
  EXPECT_EQ(said, "std failure: timeout (13) bye");
}

TEST_F(TaskTest, WaitsAsOftenAsItLikesBesideOthers) {
  door->lookTwice(door->tasks_, 1, 2);
  door->lookTwice(door->tasks_, 3, 4);
  asked();
  const message first = request;
  asked();
  answer(test::named(message(), "c"));
  net.loader.send(answerTo(first, test::named(message(), "a")));
  net.wake();
  asked();
  EXPECT_EQ(request.get(STD_ID, 0), 4u);
  answer(test::named(message(), "d"));
  EXPECT_EQ(said, "cd");
  asked();
  EXPECT_EQ(request.get(STD_ID, 0), 2u);
  answer(test::named(message(), "b"));
  EXPECT_EQ(said, "cdab");
}

TEST_F(TaskTest, CallsAllThatAClientCalls) {
  door->everything(door->tasks_);
  EXPECT_EQ(asked(), CMD_GETCOUNT);
  message body;
  body.insert(STD_GETALLNO, 2);
  answer(body);
  EXPECT_EQ(asked(), CMD_GETALL);
  body = {};
  body.insert(STD_OBJS, {test::named(test::object(1), "x").flattened()});
  body.insert(STD_GETALLID, 2);
  answer(body);
  EXPECT_EQ(asked(), CMD_GETALL);
  body.remove(STD_GETALLID);
  answer(body);
  EXPECT_EQ(asked(), CMD_ADDOBJ);
  EXPECT_EQ(request.get(test::NAME, ""), "new");
  answer(test::object(8));
  EXPECT_EQ(asked(), CMD_SETOBJ);
  EXPECT_EQ(request.get(TABLE_CLEARS, {}), Ids{test::METRIC});
  answer(message());
  EXPECT_EQ(asked(), CMD_MOVEOBJ);
  EXPECT_EQ(request.get(STD_NEXTID, 0), 3u);
  answer(message());
  EXPECT_EQ(asked(), CMD_REMOVEOBJ);
  answer(errorMsg(ERROR_UNKNOWNID, ""));
  EXPECT_EQ(asked(), test::CMD_FLUSH);
  answer(test::named(message(), "z"));
  EXPECT_EQ(said, "2 x x 8 ok ok std failure: unknown id (4) z");
}

TEST_F(TaskTest, WaitsForAWhile) {
  door->wait(door->tasks_, *net.looper, std::make_unique<int>(7));
  EXPECT_EQ(said, "a");
  pass(1);
  EXPECT_EQ(said, "a");
  pass(1);
  EXPECT_EQ(said, "ab");
  pass(3);
  EXPECT_EQ(said, "ab7|");
}

TEST_F(TaskTest, AsksByMessageToo) {
  door->raw(door->tasks_, question());
  EXPECT_EQ(asked(), CMD_GET);
  EXPECT_EQ(request.get(SYS_TO, {}), Ids{40});
  answer(test::named(message(), "n"));
  EXPECT_EQ(said, "n|");
  door->raw(door->tasks_, question());
  pass(100);
  EXPECT_EQ(said, "n|std failure: timeout (13)|");
}

TEST_F(TaskTest, EndsWithItsHandler) {
  door->look(door->tasks_, 4);
  asked();
  door->raw(door->tasks_, question());
  door->wait(door->tasks_, *net.looper, std::make_unique<int>(7));
  said.clear();
  door.reset();
  EXPECT_EQ(said, " bye||");
  answer(test::named(message(), "a"));
  pass(10000);
  EXPECT_EQ(said, " bye||");
}

TEST_F(TaskTest, EndsByOrderAndItsReplyIsDropped) {
  door->look(door->tasks_, 4);
  asked();
  door->tasks_.cancel();
  EXPECT_EQ(said, " bye");
  EXPECT_TRUE(door->tasks_.isIdle());
  answer(test::named(message(), "a"));
  EXPECT_EQ(said, " bye");
  EXPECT_TRUE(door->routes_.isIdle());
  door->raw(door->tasks_, question());
  asked();
  door->tasks_.cancel();
  answer(test::named(message(), "a"));
  EXPECT_EQ(said, " bye|");
}

TEST_F(TaskTest, EndsWithTheCallThatItWaitsFor) {
  door->look(door->tasks_, 4);
  door->look(door->tasks_, 5);
  door->routes_.cancel();
  EXPECT_EQ(said, " bye bye");
  EXPECT_TRUE(door->tasks_.isIdle());
}

TEST_F(TaskTest, MayEndItsOwnHandlerAndThenEndsItself) {
  Door::burn(door->tasks_, *net.looper, door, said);
  pass(1);
  EXPECT_EQ(said, "still here bye");
  pass(5);
  EXPECT_EQ(said, "still here bye");
}

TEST_F(TaskTest, MayBeAFunctionOfItsOwn) {
  Tasks tasks;
  const auto count = [](Tasks&, ThinRunner& loop, int& counted) -> Task {
    for (;;) {
      co_await after(loop, 1);
      ++counted;
    }
  };
  int counted = 0;
  count(tasks, *net.looper, counted);
  for (int i = 0; i < 5; ++i) pass(1);
  EXPECT_EQ(counted, 5);
  tasks.cancel();
  pass(1);
  EXPECT_EQ(counted, 5);
}

}  // namespace
}  // namespace kl
