#include <gtest/gtest.h>
#include <ucontext.h>

#include <string>

#include "loop/processor.h"
#include "tests/loop/report_reader.h"

namespace kl {
namespace {

TEST(CpuX8664, RegistersStandUnderTheirNamesInColumns) {
  ucontext_t context{};
  auto& registers = context.uc_mcontext.gregs;
  const int order[] = {REG_RIP, REG_RSP, REG_RBP, REG_EFL, REG_ERR, REG_TRAPNO, REG_CR2,
                       REG_RAX, REG_RBX, REG_RCX, REG_RDX, REG_RSI, REG_RDI,    REG_R8,
                       REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14,    REG_R15};
  long long value = 0x1000;
  for (const int index : order) registers[index] = value++;
  const SafeMemory memory;
  const Registers copy = readRegisters(&context, memory);
  EXPECT_EQ(test::reportOf([&](ReportText& out) { writeRegisters(copy, out); }),
            "rip=0x0000000000001000 rsp=0x0000000000001001 rbp=0x0000000000001002\n"
            "efl=0x0000000000001003 err=0x0000000000001004 trapno=0x0000000000001005 cr2=0x0000000000001006\n"
            "rax=0x0000000000001007 rbx=0x0000000000001008 rcx=0x0000000000001009 rdx=0x000000000000100a\n"
            "rsi=0x000000000000100b rdi=0x000000000000100c rbp=0x0000000000001002 rsp=0x0000000000001001\n"
            "r8 =0x000000000000100d r9 =0x000000000000100e r10=0x000000000000100f r11=0x0000000000001010\n"
            "r12=0x0000000000001011 r13=0x0000000000001012 r14=0x0000000000001013 r15=0x0000000000001014\n");
  EXPECT_EQ(instructionAddress(copy), 0x1000u);
}

TEST(CpuX8664, AContextThatCannotBeReadGivesZeros) {
  const SafeMemory memory;
  for (const std::uintptr_t value : readRegisters(nullptr, memory).value) EXPECT_EQ(value, 0u);
}

TEST(CpuX8664, WithoutAFramePointerTheStackIsSearchedForTheFirstFrame) {
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
  Registers registers;
  registers.value[REG_RSP] = placeOf(0);
  registers.value[REG_RBP] = 0x4711;
  const SafeMemory memory;
  const WalkStart start = walkStart(registers, placeOf(31), memory);
  ASSERT_EQ(start.callSiteCount, 3u);
  EXPECT_EQ(start.callSites[0], afterIndirect);
  EXPECT_EQ(start.callSites[1], afterDirect);
  EXPECT_EQ(start.callSites[2], afterDirect);
  EXPECT_EQ(start.frame, placeOf(12));
}

TEST(CpuX8664, TheSearchEndsAtTheTopAndAtSixteenCalls) {
  static const unsigned char direct[8] = {0xE8, 0, 0, 0, 0, 0x90, 0x90, 0x90};
  alignas(16) std::uintptr_t stack[32] = {};
  for (std::uintptr_t& word : stack) word = reinterpret_cast<std::uintptr_t>(direct) + 5;
  Registers registers;
  registers.value[REG_RSP] = reinterpret_cast<std::uintptr_t>(stack);
  const SafeMemory memory;
  EXPECT_EQ(walkStart(registers, reinterpret_cast<std::uintptr_t>(&stack[3]), memory).callSiteCount, 3u);
  EXPECT_EQ(walkStart(registers, reinterpret_cast<std::uintptr_t>(&stack[31]), memory).callSiteCount, 16u);
  EXPECT_EQ(walkStart(registers, 0, memory).callSiteCount, 0u);
}

TEST(CpuX8664, AFramePointerWithAReturnAddressBehindItIsTaken) {
  static const unsigned char direct[8] = {0x90, 0x90, 0xE8, 0, 0, 0, 0, 0x90};
  alignas(16) std::uintptr_t stack[8] = {};
  const auto placeOf = [&](std::size_t word) { return reinterpret_cast<std::uintptr_t>(&stack[word]); };
  stack[5] = reinterpret_cast<std::uintptr_t>(direct) + 7;
  Registers registers;
  registers.value[REG_RSP] = placeOf(0);
  registers.value[REG_RBP] = placeOf(4);
  const SafeMemory memory;
  const WalkStart start = walkStart(registers, placeOf(7), memory);
  EXPECT_EQ(start.callSiteCount, 0u);
  EXPECT_EQ(start.frame, placeOf(4));
}

TEST(CpuX8664, AReturnAddressAtTheStackPointerComesBeforeTheChain) {
  static const unsigned char direct[8] = {0x90, 0x90, 0xE8, 0, 0, 0, 0, 0x90};
  const auto after = reinterpret_cast<std::uintptr_t>(direct) + 7;
  alignas(16) std::uintptr_t stack[8] = {};
  stack[0] = after;
  stack[5] = after;
  Registers registers;
  registers.value[REG_RSP] = reinterpret_cast<std::uintptr_t>(&stack[0]);
  registers.value[REG_RBP] = reinterpret_cast<std::uintptr_t>(&stack[4]);
  const SafeMemory memory;
  const WalkStart start = walkStart(registers, reinterpret_cast<std::uintptr_t>(&stack[7]), memory);
  EXPECT_EQ(start.callSiteCount, 1u);
  EXPECT_EQ(start.callSites[0], after);
  EXPECT_EQ(start.frame, registers.value[REG_RBP]);
}

}  // namespace
}  // namespace kl
