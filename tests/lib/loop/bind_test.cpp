#include "kl/bind.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "kl/message.h"
#include "kl/runner.h"

namespace kl {
namespace {

class Counter {
 public:
  void onTick() { ++ticks; }
  void onReadable(int fd, unsigned int revents) { seen = std::to_string(fd) + " " + std::to_string(revents); }
  void onSignal(int sig) noexcept { ticks += sig; }
  void onLook() const {}
  void onReply(const message& reply, const message& data) {
    first = &reply;
    second = &data;
  }

  int ticks = 0;
  std::string seen;
  const message* first = nullptr;
  const message* second = nullptr;
};

class Derived : private std::string, public Counter {};

static_assert(std::is_same_v<decltype(bind<Counter, &Counter::onTick>()), ThinRunner::TimerCallback>);
static_assert(std::is_same_v<decltype(bind<Counter, &Counter::onTick>()), ThinRunner::HookCallback>);
static_assert(std::is_same_v<decltype(bind<Counter, &Counter::onLook>()), ThinRunner::HookCallback>);
static_assert(std::is_same_v<decltype(bind<Counter, &Counter::onReadable>()), ThinRunner::SocketCallback>);
static_assert(std::is_same_v<decltype(bind<Counter, &Counter::onSignal>()), void (*)(void*, int)>);
static_assert(std::is_same_v<decltype(bind<Counter, &Counter::onReply>()),
                             void (*)(void*, const message&, const message&)>);

TEST(Bind, TheContextWordBecomesTheObject) {
  Counter counter;
  bind<Counter, &Counter::onTick>()(&counter);
  EXPECT_EQ(counter.ticks, 1);
  bind<Counter, &Counter::onSignal>()(&counter, 10);
  EXPECT_EQ(counter.ticks, 11);
}

TEST(Bind, ArgumentsArePassedOn) {
  Counter counter;
  bind<Counter, &Counter::onReadable>()(&counter, 7, 5);
  EXPECT_EQ(counter.seen, "7 5");
}

TEST(Bind, ReferencesArePassedOnWithoutACopy) {
  Counter counter;
  const message reply;
  const message data;
  bind<Counter, &Counter::onReply>()(&counter, reply, data);
  EXPECT_EQ(counter.first, &reply);
  EXPECT_EQ(counter.second, &data);
}

TEST(Bind, AnInheritedMemberFindsItsPartOfTheObject) {
  Derived derived;
  bind<Derived, &Derived::onTick>()(&derived);
  EXPECT_EQ(derived.ticks, 1);
}

TEST(Bind, OneMemberAlwaysGivesTheSamePointer) {
  const auto first = bind<Counter, &Counter::onTick>();
  const auto again = bind<Counter, &Counter::onTick>();
  EXPECT_EQ(first, again);
  Counter counter;
  ThinRunner loop;
  loop.addDelayedTimer(&counter, bind<Counter, &Counter::onTick>(), 1);
  EXPECT_TRUE(loop.removeTimer(&counter, bind<Counter, &Counter::onTick>()));
}

}  // namespace
}  // namespace kl
