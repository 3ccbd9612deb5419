#include "kl/callable.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace kl {
namespace {

int twice(int value) { return 2 * value; }

// Adds to a sum when it is called, counts how many of it there are, and how often one was put on the heap.
struct Adder {
  explicit Adder(int& to) : sum(&to) { ++alive; }
  Adder(const Adder& other) : sum(other.sum) { ++alive; }
  ~Adder() { --alive; }
  void operator()(int value) { *sum += value; }

  static void* operator new(std::size_t size) {
    ++allocated;
    return ::operator new(size);
  }
  static void operator delete(void* memory) { ::operator delete(memory); }

  int* sum;
  static inline int alive = 0;
  static inline int allocated = 0;
};

struct SmallAdder : Adder {
  using Adder::Adder;
  SmallAdder(const SmallAdder& other) noexcept : Adder(other) {}
  void* second = nullptr;
};

struct LargeAdder : SmallAdder {
  using SmallAdder::SmallAdder;
  void* third = nullptr;
};

template <class A>
int allocationsOf() {
  Adder::allocated = 0;
  int sum = 0;
  {
    Callable<void(int)> add = A(sum);
    Callable<void(int)> moved = std::move(add);
    EXPECT_FALSE(add);
    moved(3);
    add = std::move(moved);
    add(4);
  }
  EXPECT_EQ(sum, 7);
  EXPECT_EQ(Adder::alive, 0);
  return Adder::allocated;
}

TEST(Callable, TwoWordsNeedNoAllocation) {
  static_assert(sizeof(SmallAdder) == 2 * sizeof(void*));
  EXPECT_EQ(allocationsOf<SmallAdder>(), 0);
  EXPECT_EQ(allocationsOf<LargeAdder>(), 1);
  EXPECT_EQ(allocationsOf<Adder>(), 1) << "what may throw when it is moved";
}

TEST(Callable, IsALambdaAFunctionOrNothing) {
  int calls = 0;
  Callable<void()> count = [&calls] { ++calls; };
  count();
  count();
  EXPECT_EQ(calls, 2);
  Callable<int(int)> function = twice;
  EXPECT_EQ(function(4), 8);
  function = &twice;
  EXPECT_EQ(function(5), 10);
  int (*none)(int) = nullptr;
  EXPECT_FALSE(Callable<int(int)>(none));
  EXPECT_FALSE(Callable<int(int)>(nullptr));
  EXPECT_FALSE(Callable<void()>());
}

TEST(Callable, TakesAndPassesWhatCanOnlyBeMoved) {
  auto number = std::make_unique<int>(7);
  Callable<int(std::unique_ptr<int>)> sum = [number = std::move(number)](std::unique_ptr<int> other) {
    return *number + *other;
  };
  EXPECT_EQ(sum(std::make_unique<int>(3)), 10);
}

TEST(Callable, PassesReferencesWithoutACopy) {
  std::string text;
  Callable<std::string&(std::string&)> same = [](std::string& it) -> std::string& { return it; };
  EXPECT_EQ(&same(text), &text);
}

TEST(Callable, KeepsWhatItChangesInItself) {
  Callable<int()> next = [value = 0]() mutable { return ++value; };
  next();
  EXPECT_EQ(next(), 2);
}

TEST(Callable, EndsWhatItWasMadeOfWhenItGetsAnother) {
  auto token = std::make_shared<int>(1);
  Callable<void()> hold = [token] {};
  EXPECT_EQ(token.use_count(), 2);
  hold = [] {};
  EXPECT_EQ(token.use_count(), 1);
}

TEST(Callable, TakesOnlyWhatCanBeCalledSo) {
  static_assert(!std::is_constructible_v<Callable<void()>, int>);
  static_assert(!std::is_constructible_v<Callable<void()>, void (*)(int)>);
  static_assert(!std::is_constructible_v<Callable<std::string()>, int (*)()>);
  static_assert(!std::is_copy_constructible_v<Callable<void()>>);
  static_assert(std::is_constructible_v<Callable<void()>, int (*)()>, "a result that nobody asked for");
}

}  // namespace
}  // namespace kl
