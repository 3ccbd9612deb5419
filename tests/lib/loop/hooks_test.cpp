#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kl/runner.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/journal.h"

namespace kl {
namespace {

class Hooks : public ::testing::Test {
 protected:
  class Loop : public ThinRunner {
   public:
    void stop() { stop_ = true; }
    void goOn() { stop_ = false; }
  };

  struct Hook {
    Hooks* test;
    std::string name;
    std::function<void()> action;
  };

  static void onHook(void* data) {
    auto* hook = static_cast<Hook*>(data);
    hook->test->journal.note(hook->name);
    if (hook->action) hook->action();
  }

  static void otherHook(void* data) {
    auto* hook = static_cast<Hook*>(data);
    hook->test->journal.note(hook->name + "'");
  }

  Hook* add(const std::string& name, std::function<void()> action = {}) {
    hooks.push_back(std::make_unique<Hook>(Hook{this, name, std::move(action)}));
    loop.addBeforeSleep(hooks.back().get(), onHook);
    return hooks.back().get();
  }

  void remove(Hook* hook) { loop.removeBeforeSleep(hook, onHook); }

  std::string onePass() {
    journal.clear();
    loop.goOn();
    loop.run();
    return journal.text();
  }

  test::Journal journal;
  std::vector<std::unique_ptr<Hook>> hooks;
  Loop loop;
  test::ScriptedPoll poll{[this](const std::vector<pollfd*>&) {
    loop.stop();
    return 0;
  }};
};

TEST_F(Hooks, TheNewestIsCalledFirst) {
  add("a");
  add("b");
  EXPECT_EQ(onePass(), "b a");
}

TEST_F(Hooks, TheOrderTurnsAroundWithEveryPass) {
  add("a");
  add("b");
  add("c");
  EXPECT_EQ(onePass(), "c b a");
  EXPECT_EQ(onePass(), "a b c");
  EXPECT_EQ(onePass(), "c b a");
}

TEST_F(Hooks, AHookAddedByAHookIsCalledInTheNextPass) {
  add("a", [this] {
    if (hooks.size() == 1) add("b");
  });
  EXPECT_EQ(onePass(), "a");
  EXPECT_EQ(onePass(), "b a");
}

TEST_F(Hooks, AHookMayRemoveItself) {
  Hook* self = add("self");
  self->action = [this, self] { remove(self); };
  add("b");
  EXPECT_EQ(onePass(), "b self");
  EXPECT_EQ(onePass(), "b");
}

TEST_F(Hooks, AHookMayRemoveOneThatIsStillToRun) {
  Hook* victim = add("victim");
  add("b", [this, victim] { remove(victim); });
  EXPECT_EQ(onePass(), "b");
}

TEST_F(Hooks, AHookMayRemoveOneThatHasRun) {
  Hook* remover = add("remover");
  Hook* victim = add("victim");
  remover->action = [this, victim] { remove(victim); };
  EXPECT_EQ(onePass(), "victim remover");
  EXPECT_EQ(onePass(), "remover");
}

TEST_F(Hooks, ShutdownInsideAHookDropsTheRest) {
  add("a");
  add("b", [this] { loop.shutdown(); });
  EXPECT_EQ(onePass(), "b");
  EXPECT_EQ(onePass(), "");
}

TEST_F(Hooks, OfTwoAdjacentMatchesOnlyTheFirstIsRemoved) {
  Hook* twice = add("a");
  loop.addBeforeSleep(twice, onHook);
  remove(twice);
  EXPECT_EQ(onePass(), "a");
  remove(twice);
  EXPECT_EQ(onePass(), "");
}

TEST_F(Hooks, MatchesWithAnotherBetweenThemAreAllRemoved) {
  Hook* twice = add("a");
  add("b");
  loop.addBeforeSleep(twice, onHook);
  remove(twice);
  EXPECT_EQ(onePass(), "b");
}

TEST_F(Hooks, OfThreeAdjacentMatchesTheMiddleOneStays) {
  Hook* thrice = add("a");
  loop.addBeforeSleep(thrice, onHook);
  loop.addBeforeSleep(thrice, onHook);
  remove(thrice);
  EXPECT_EQ(onePass(), "a");
}

TEST_F(Hooks, ThePairMustMatchInBothHalves) {
  Hook* a = add("a");
  loop.addBeforeSleep(a, otherHook);
  loop.removeBeforeSleep(this, onHook);
  EXPECT_EQ(onePass(), "a' a");
  remove(a);
  EXPECT_EQ(onePass(), "a'");
}

TEST_F(Hooks, RunBeforeThePoll) {
  add("hook");
  bool wasCalled = false;
  {
    test::ScriptedPoll watching([&](const std::vector<pollfd*>&) {
      wasCalled = journal.text() == "hook";
      loop.stop();
      return 0;
    });
    onePass();
  }
  EXPECT_TRUE(wasCalled);
}

}  // namespace
}  // namespace kl
