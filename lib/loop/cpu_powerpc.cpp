// The crash report's view of a 32-bit PowerPC processor.  Everything is async-signal-safe: no allocation, no streams.
//
// A function's frame begins at the stack pointer with the address of its caller's frame (the back chain); the word
// behind it is where a function called from there saved its return address.

#include <ucontext.h>

#include "loop/processor.h"

namespace kl {
namespace {

// The kernel's order of the registers in a machine context.
enum Index : unsigned int {
  kGpr0 = 0,
  kStackPointer = 1,
  kNip = 32,
  kMsr = 33,
  kCtr = 35,
  kLink = 36,
  kXer = 37,
  kCcr = 38
};
constexpr unsigned int kGeneralRegisters = 32;
constexpr unsigned int kSaved = 39;

}  // namespace

// Async-signal-safe.
Registers readRegisters(const void* context, const SafeMemory& memory) {
  Registers result;
  ucontext_t frame;
  if (!memory.read(reinterpret_cast<std::uintptr_t>(context), &frame, offsetof(ucontext_t, uc_reg_space)))
    return result;
  const auto place = reinterpret_cast<std::uintptr_t>(frame.uc_mcontext.uc_regs);
  if (!memory.read(place, result.value.data(), kSaved * sizeof(std::uintptr_t))) return {};
  return result;
}

// Async-signal-safe.
void writeRegisters(const Registers& registers, ReportText& out) {
  const auto& r = registers.value;
  out.putWord("nip=0x", r[kNip], " ");
  out.putWord(" lr=0x", r[kLink], " ");
  out.putWord("ctr=0x", r[kCtr], " ");
  out.putWord("sp=0x", r[kStackPointer], "\n");
  out.putWord("ccr=0x", r[kCcr], " ");
  out.putWord("xer=0x", r[kXer], " ");
  out.putWord("msr=0x", r[kMsr], "\n");
  for (unsigned int n = 0; n < kGeneralRegisters; ++n) {
    out.putDecimal("gpr", n, n <= 9 ? " =0x" : "=0x");
    out.putWord("", r[kGpr0 + n], n % 4 == 3 ? "\n" : " ");
  }
}

// Async-signal-safe.
std::uintptr_t instructionAddress(const Registers& registers) { return registers.value[kNip]; }

// Async-signal-safe.
WalkStart walkStart(const Registers& registers, std::uintptr_t, const SafeMemory&) {
  return {registers.value[kStackPointer], {}, 0};
}

}  // namespace kl
