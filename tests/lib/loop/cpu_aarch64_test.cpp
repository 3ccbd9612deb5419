#include <gtest/gtest.h>
#include <ucontext.h>

#include <string>

#include "loop/processor.h"
#include "tests/lib/loop/report_reader.h"

namespace kl {
namespace {

TEST(CpuAarch64, RegistersStandUnderTheirNamesInColumns) {
  ucontext_t context{};
  auto& machine = context.uc_mcontext;
  for (unsigned int n = 0; n < 31; ++n) machine.regs[n] = 0x100 + n;
  machine.pc = 0x1000;
  machine.sp = 0x1001;
  machine.pstate = 0x1002;
  machine.fault_address = 0x1003;
  const SafeMemory memory;
  const Registers copy = readRegisters(&context, memory);
  EXPECT_EQ(test::reportOf([&](ReportText& out) { writeRegisters(copy, out); }),
            "pc=0x0000000000001000 lr=0x000000000000011e sp=0x0000000000001001\n"
            "pstate=0x0000000000001002 fault=0x0000000000001003\n"
            "x0 =0x0000000000000100 x1 =0x0000000000000101 x2 =0x0000000000000102 x3 =0x0000000000000103\n"
            "x4 =0x0000000000000104 x5 =0x0000000000000105 x6 =0x0000000000000106 x7 =0x0000000000000107\n"
            "x8 =0x0000000000000108 x9 =0x0000000000000109 x10=0x000000000000010a x11=0x000000000000010b\n"
            "x12=0x000000000000010c x13=0x000000000000010d x14=0x000000000000010e x15=0x000000000000010f\n"
            "x16=0x0000000000000110 x17=0x0000000000000111 x18=0x0000000000000112 x19=0x0000000000000113\n"
            "x20=0x0000000000000114 x21=0x0000000000000115 x22=0x0000000000000116 x23=0x0000000000000117\n"
            "x24=0x0000000000000118 x25=0x0000000000000119 x26=0x000000000000011a x27=0x000000000000011b\n"
            "x28=0x000000000000011c x29=0x000000000000011d x30=0x000000000000011e\n");
  EXPECT_EQ(instructionAddress(copy), 0x1000u);
  EXPECT_EQ(walkStart(copy, 0, memory).frame, 0x11du);
}

}  // namespace
}  // namespace kl
