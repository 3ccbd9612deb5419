#include <gtest/gtest.h>
#include <ucontext.h>

#include <string>

#include "loop/processor.h"
#include "tests/lib/loop/report_reader.h"

namespace kl {
namespace {

TEST(CpuI686, RegistersStandUnderTheirNamesInColumns) {
  ucontext_t context{};
  auto& registers = context.uc_mcontext.gregs;
  const int order[] = {REG_EIP, REG_ESP, REG_EBP, REG_EFL, REG_ERR, REG_TRAPNO,
                       REG_EAX, REG_EBX, REG_ECX, REG_EDX, REG_ESI, REG_EDI};
  int value = 0x1000;
  for (const int index : order) registers[index] = value++;
  context.uc_mcontext.cr2 = 0x2000;
  const SafeMemory memory;
  const Registers copy = readRegisters(&context, memory);
  EXPECT_EQ(test::reportOf([&](ReportText& out) { writeRegisters(copy, out); }),
            "eip=0x00001000 esp=0x00001001 ebp=0x00001002\n"
            "efl=0x00001003 err=0x00001004 trapno=0x00001005 cr2=0x00002000\n"
            "eax=0x00001006 ebx=0x00001007 ecx=0x00001008 edx=0x00001009\n"
            "esi=0x0000100a edi=0x0000100b ebp=0x00001002 esp=0x00001001\n");
  EXPECT_EQ(instructionAddress(copy), 0x1000u);
}

TEST(CpuI686, AContextThatCannotBeReadGivesZeros) {
  const SafeMemory memory;
  for (const std::uintptr_t value : readRegisters(nullptr, memory).value) EXPECT_EQ(value, 0u);
}

TEST(CpuI686, TheWalkBeginsAtItsStackAndFramePointers) {
  static const unsigned char direct[8] = {0x90, 0x90, 0xE8, 0, 0, 0, 0, 0x90};
  alignas(16) std::uintptr_t stack[8] = {};
  const auto placeOf = [&](std::size_t word) { return reinterpret_cast<std::uintptr_t>(&stack[word]); };
  stack[5] = reinterpret_cast<std::uintptr_t>(direct) + 7;
  Registers registers;
  registers.value[REG_ESP] = placeOf(0);
  registers.value[REG_EBP] = placeOf(4);
  EXPECT_EQ(walkStart(registers, placeOf(7), SafeMemory()).frame, placeOf(4));
}

}  // namespace
}  // namespace kl
