#include "tools/klgen/identifiers.h"

#include <gtest/gtest.h>

namespace klgen {

TEST(Identifiers, HaveThreeForms) {
  EXPECT_EQ(memberName("rx_bytes"), "rx_bytes");
  EXPECT_EQ(constantName("rx_bytes"), "RX_BYTES");
  EXPECT_EQ(typeName("rx_bytes"), "RxBytes");
  EXPECT_EQ(typeName("addresses4"), "Addresses4");
}

TEST(Identifiers, WhatCppHasForItselfGetsAnUnderscore) {
  EXPECT_EQ(memberName("class"), "class_");
  EXPECT_EQ(memberName("co_await"), "co_await_");
  EXPECT_EQ(memberName("xor_eq"), "xor_eq_");
  EXPECT_EQ(memberName("alignas"), "alignas_");
  EXPECT_EQ(memberName("errno"), "errno_");
  EXPECT_EQ(constantName("class"), "CLASS");
  EXPECT_EQ(constantName("eof"), "EOF_");
  EXPECT_EQ(constantName("null"), "NULL_");
}

TEST(Identifiers, WhatStructuresHaveForThemselvesGetsAnUnderscore) {
  EXPECT_EQ(typeName("calls"), "Calls_");
  EXPECT_EQ(typeName("operations"), "Operations_");
  EXPECT_EQ(typeName("call"), "Call");
  EXPECT_EQ(memberName("calls"), "calls");
}

TEST(Identifiers, NameSpacesOfOthersAreLeftAlone) {
  EXPECT_EQ(spaceName("netif"), "netif");
  EXPECT_EQ(spaceName("std"), "std_");
  EXPECT_EQ(spaceName("kl"), "kl_");
  EXPECT_EQ(spaceName("union"), "union_");
}

TEST(Identifiers, ACommentEndsWithItsLine) {
  EXPECT_EQ(commentText("one\ntwo"), "one two");
  EXPECT_EQ(commentText("a\\"), "a\\.");
  EXPECT_EQ(commentText("a\\ \t"), "a\\.");
  EXPECT_EQ(commentText(""), "");
}

}  // namespace klgen
