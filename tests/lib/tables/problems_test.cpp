#include "tables/problems.h"

#include <gtest/gtest.h>

#include "tests/lib/tables/route.h"

namespace kl {
namespace {

using test::errorOf;
using test::textOf;

message whole() {
  message m;
  m.insert(test::NAME, "a");
  return m;
}

message found(const message& object) {
  Problems problems(test::Route::kRules);
  findProblems(test::Route::kRules, object, object, problems);
  return problems.reply();
}

template <class T>
std::string foundWith(field<T> id, const T& value) {
  message m = whole();
  m.insert(id, value);
  return textOf(found(m));
}

}  // namespace

TEST(TableProblems, AnObjectThatKeepsToItsDescriptionHasNone) {
  EXPECT_EQ(found(whole()), message());
  message m = whole();
  m.insert(test::METRIC, 100);
  m.insert(test::HOPS, {1, 2});
  m.insert(test::KEY, {1, 2});
  m.insert(test::STATE, 2);
  m.insert(test::BYTES, 5);
  m.insert(test::UP, true);
  m.insert(test::LATER, std::string(100, 'x'));
  EXPECT_EQ(found(m), message());
}

TEST(TableProblems, ARequiredFieldIsMissing) {
  const message m = found(message());
  EXPECT_EQ(errorOf(m), ERROR_MISSING);
  EXPECT_EQ(textOf(m), "name: missing");
  EXPECT_EQ(getError(m), "name: missing (5)");
}

TEST(TableProblems, BoundsAreThoseOfValuesAndLengths) {
  EXPECT_EQ(foundWith(test::METRIC, 0u), "metric: at least 1");
  EXPECT_EQ(foundWith(test::METRIC, 101u), "metric: at most 100");
  EXPECT_EQ(foundWith(test::METRIC, 100000u), "metric: at most 100");
  EXPECT_EQ(foundWith(test::BYTES, 6ull), "bytes: at most 5");
  EXPECT_EQ(foundWith(test::NAME, std::string()), "name: at least 1 bytes");
  EXPECT_EQ(foundWith(test::NAME, std::string(16, 'x')), "name: at most 15 bytes");
  EXPECT_EQ(foundWith(test::KEY, std::vector<unsigned char>(300)), "key: at most 4 bytes");
  EXPECT_EQ(foundWith(test::HOPS, std::vector<unsigned int>(3)), "hops: at most 2 elements");
}

TEST(TableProblems, AFieldWithWordsForItsValuesHasOneOfThem) {
  EXPECT_EQ(foundWith(test::STATE, 3u), "state: 3 is none of its values");
}

TEST(TableProblems, AllAreNamedAndTheFirstDecidesTheError) {
  message m = whole();
  m.insert(test::NAME, std::string(16, 'x'));
  m.insert(test::METRIC, 0);
  EXPECT_EQ(textOf(found(m)), "name: at most 15 bytes; metric: at least 1");
  EXPECT_EQ(errorOf(found(m)), ERROR_TOOBIG);
  m.remove(test::NAME);
  EXPECT_EQ(errorOf(found(m)), ERROR_MISSING);
  m.insert(test::NAME, "a");
  EXPECT_EQ(errorOf(found(m)), ERROR_FAILED);
}

TEST(TableProblems, WhatWasThereBeforeIsNotLookedAt) {
  message object = whole();
  object.insert(test::METRIC, 0);
  message request;
  request.insert(test::UP, true);
  Problems problems(test::Route::kRules);
  findProblems(test::Route::kRules, object, request, problems);
  EXPECT_TRUE(problems.empty());
}

TEST(TableProblems, AFieldThatTheDescriptionDoesNotHaveIsNamedByItsNumber) {
  Problems problems(test::Route::kRules);
  problems.add(1, "is odd");
  EXPECT_EQ(textOf(problems.reply()), "field 1: is odd");
}

}  // namespace kl
