#include <gtest/gtest.h>
#include <ucontext.h>

#include <string>

#include "loop/processor.h"
#include "tests/lib/loop/report_reader.h"

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

TEST(CpuX8664, TheWalkBeginsAtItsStackAndFramePointers) {
  static const unsigned char direct[8] = {0x90, 0x90, 0xE8, 0, 0, 0, 0, 0x90};
  alignas(16) std::uintptr_t stack[8] = {};
  const auto placeOf = [&](std::size_t word) { return reinterpret_cast<std::uintptr_t>(&stack[word]); };
  stack[5] = reinterpret_cast<std::uintptr_t>(direct) + 7;
  Registers registers;
  registers.value[REG_RSP] = placeOf(0);
  registers.value[REG_RBP] = placeOf(4);
  EXPECT_EQ(walkStart(registers, placeOf(7), SafeMemory()).frame, placeOf(4));
}

}  // namespace
}  // namespace kl
