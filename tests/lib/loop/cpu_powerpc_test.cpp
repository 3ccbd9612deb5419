#include <gtest/gtest.h>
#include <ucontext.h>

#include <string>

#include "loop/processor.h"
#include "tests/lib/loop/report_reader.h"

namespace kl {
namespace {

TEST(CpuPowerpc, RegistersStandUnderTheirNamesInColumns) {
  ucontext_t context{};
  mcontext_t machine{};
  context.uc_mcontext.uc_regs = &machine;
  for (unsigned int n = 0; n < 48; ++n) machine.gregs[n] = 0x100 + n;
  const SafeMemory memory;
  const Registers copy = readRegisters(&context, memory);
  EXPECT_EQ(test::reportOf([&](ReportText& out) { writeRegisters(copy, out); }),
            "nip=0x00000120  lr=0x00000124 ctr=0x00000123 sp=0x00000101\n"
            "ccr=0x00000126 xer=0x00000125 msr=0x00000121\n"
            "gpr0 =0x00000100 gpr1 =0x00000101 gpr2 =0x00000102 gpr3 =0x00000103\n"
            "gpr4 =0x00000104 gpr5 =0x00000105 gpr6 =0x00000106 gpr7 =0x00000107\n"
            "gpr8 =0x00000108 gpr9 =0x00000109 gpr10=0x0000010a gpr11=0x0000010b\n"
            "gpr12=0x0000010c gpr13=0x0000010d gpr14=0x0000010e gpr15=0x0000010f\n"
            "gpr16=0x00000110 gpr17=0x00000111 gpr18=0x00000112 gpr19=0x00000113\n"
            "gpr20=0x00000114 gpr21=0x00000115 gpr22=0x00000116 gpr23=0x00000117\n"
            "gpr24=0x00000118 gpr25=0x00000119 gpr26=0x0000011a gpr27=0x0000011b\n"
            "gpr28=0x0000011c gpr29=0x0000011d gpr30=0x0000011e gpr31=0x0000011f\n");
  EXPECT_EQ(instructionAddress(copy), 0x120u);
  EXPECT_EQ(walkStart(copy, 0, memory).frame, 0x101u);
}

TEST(CpuPowerpc, AContextThatCannotBeReadGivesZeros) {
  const SafeMemory memory;
  ucontext_t context{};  // its register pointer leads nowhere
  for (const std::uintptr_t value : readRegisters(&context, memory).value) EXPECT_EQ(value, 0u);
}

}  // namespace
}  // namespace kl
