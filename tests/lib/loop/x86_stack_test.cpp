#include "loop/x86_stack.h"

#include <gtest/gtest.h>

namespace kl {
namespace {

TEST(X86Stack, WithoutAFramePointerTheStackIsSearchedForTheFirstFrame) {
  // The bytes of a call, and behind them what it returns to.
  static const unsigned char direct[8] = {0xE8, 0, 0, 0, 0, 0x90, 0x90, 0x90};
  static const unsigned char indirect[8] = {0x90, 0x90, 0x90, 0x41, 0xFF, 0xD4, 0x90, 0x90};  // call *%r12
  const auto afterDirect = reinterpret_cast<std::uintptr_t>(direct) + 5;
  const auto afterIndirect = reinterpret_cast<std::uintptr_t>(indirect) + 6;
  alignas(16) std::uintptr_t stack[32] = {};
  const auto placeOf = [&](std::size_t word) { return reinterpret_cast<std::uintptr_t>(&stack[word]); };
  stack[2] = 0x1234;
  stack[3] = afterIndirect;
  stack[5] = afterDirect;
  stack[7] = placeOf(16);  // a frame that an earlier call left behind: its caller's is gone
  stack[8] = afterDirect;
  stack[9] = placeOf(20);   // a pointer into the stack, but no return address behind it
  stack[12] = placeOf(20);  // the frame
  stack[13] = afterIndirect;
  stack[21] = afterDirect;  // its caller's
  const SafeMemory memory;
  const WalkStart start = x86WalkStart(placeOf(0), 0x4711, placeOf(31), memory);
  ASSERT_EQ(start.callSiteCount, 3u);
  EXPECT_EQ(start.callSites[0], afterIndirect);
  EXPECT_EQ(start.callSites[1], afterDirect);
  EXPECT_EQ(start.callSites[2], afterDirect);
  EXPECT_EQ(start.frame, placeOf(12));
}

TEST(X86Stack, AFrameInsideTheOneThatWasFoundIsNearer) {
  static const unsigned char direct[8] = {0xE8, 0, 0, 0, 0, 0x90, 0x90, 0x90};
  static const unsigned char other[8] = {0x90, 0xE8, 0, 0, 0, 0, 0x90, 0x90};
  const auto afterDirect = reinterpret_cast<std::uintptr_t>(direct) + 5;
  const auto afterOther = reinterpret_cast<std::uintptr_t>(other) + 6;
  alignas(16) std::uintptr_t stack[32] = {};
  const auto placeOf = [&](std::size_t word) { return reinterpret_cast<std::uintptr_t>(&stack[word]); };
  stack[4] = placeOf(20);  // what an earlier call left behind
  stack[5] = afterOther;
  stack[10] = placeOf(20);  // the frame of a function that runs
  stack[11] = afterDirect;
  stack[21] = afterDirect;  // its caller's
  const WalkStart start = x86WalkStart(placeOf(0), 0, placeOf(31), SafeMemory());
  ASSERT_EQ(start.callSiteCount, 1u);
  EXPECT_EQ(start.callSites[0], afterOther);
  EXPECT_EQ(start.frame, placeOf(10));
}

TEST(X86Stack, TheSearchEndsAtTheTopAndAtSixteenCalls) {
  static const unsigned char direct[8] = {0xE8, 0, 0, 0, 0, 0x90, 0x90, 0x90};
  alignas(16) std::uintptr_t stack[32] = {};
  for (std::uintptr_t& word : stack) word = reinterpret_cast<std::uintptr_t>(direct) + 5;
  const auto bottom = reinterpret_cast<std::uintptr_t>(stack);
  const SafeMemory memory;
  EXPECT_EQ(x86WalkStart(bottom, 0, reinterpret_cast<std::uintptr_t>(&stack[3]), memory).callSiteCount, 3u);
  EXPECT_EQ(x86WalkStart(bottom, 0, reinterpret_cast<std::uintptr_t>(&stack[31]), memory).callSiteCount, 16u);
  EXPECT_EQ(x86WalkStart(bottom, 0, 0, memory).callSiteCount, 0u);
}

TEST(X86Stack, AFramePointerWithAReturnAddressBehindItIsTaken) {
  static const unsigned char direct[8] = {0x90, 0x90, 0xE8, 0, 0, 0, 0, 0x90};
  alignas(16) std::uintptr_t stack[8] = {};
  const auto placeOf = [&](std::size_t word) { return reinterpret_cast<std::uintptr_t>(&stack[word]); };
  stack[5] = reinterpret_cast<std::uintptr_t>(direct) + 7;
  const SafeMemory memory;
  const WalkStart start = x86WalkStart(placeOf(0), placeOf(4), placeOf(7), memory);
  EXPECT_EQ(start.callSiteCount, 0u);
  EXPECT_EQ(start.frame, placeOf(4));
}

TEST(X86Stack, AReturnAddressAtTheStackPointerComesBeforeTheChain) {
  static const unsigned char direct[8] = {0x90, 0x90, 0xE8, 0, 0, 0, 0, 0x90};
  const auto after = reinterpret_cast<std::uintptr_t>(direct) + 7;
  alignas(16) std::uintptr_t stack[8] = {};
  stack[0] = after;
  stack[5] = after;
  const auto frame = reinterpret_cast<std::uintptr_t>(&stack[4]);
  const SafeMemory memory;
  const WalkStart start = x86WalkStart(reinterpret_cast<std::uintptr_t>(stack), frame,
                                       reinterpret_cast<std::uintptr_t>(&stack[7]), memory);
  EXPECT_EQ(start.callSiteCount, 1u);
  EXPECT_EQ(start.callSites[0], after);
  EXPECT_EQ(start.frame, frame);
}

}  // namespace
}  // namespace kl
