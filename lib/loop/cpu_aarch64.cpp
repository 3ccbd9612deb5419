// The crash report's view of a 64-bit ARM processor.  Everything is async-signal-safe: no allocation, no streams.
//
// Register x29 points to the innermost frame record: the address of the next record and the saved return
// address.

#include <ucontext.h>

#include "loop/processor.h"

namespace kl {
namespace {

enum Index : unsigned int {
  kX0 = 0,
  kFramePointer = 29,
  kLink = 30,
  kStackPointer = 31,
  kPc = 32,
  kState = 33,
  kFault = 34
};
constexpr unsigned int kGeneralRegisters = 31;

}  // namespace

// Async-signal-safe.
Registers readRegisters(const void* context, const SafeMemory& memory) {
  const auto place = reinterpret_cast<std::uintptr_t>(context) + offsetof(ucontext_t, uc_mcontext);
  Registers result;
  auto& r = result.value;
  constexpr std::size_t kWord = sizeof(std::uintptr_t);
  // The kernel's order: the fault address, x0 to x30, stack pointer, program counter, state.
  if (!memory.read(place, &r[kFault], kWord)) return {};
  if (!memory.read(place + kWord, r.data(), (kState + 1) * kWord)) return {};
  return result;
}

// Async-signal-safe.
void writeRegisters(const Registers& registers, ReportText& out) {
  const auto& r = registers.value;
  out.putWord("pc=0x", r[kPc], " ");
  out.putWord("lr=0x", r[kLink], " ");
  out.putWord("sp=0x", r[kStackPointer], "\n");
  out.putWord("pstate=0x", r[kState], " ");
  out.putWord("fault=0x", r[kFault], "\n");
  for (unsigned int n = 0; n < kGeneralRegisters; ++n) {
    out.putDecimal("x", n, n <= 9 ? " =0x" : "=0x");
    out.putWord("", r[kX0 + n], n % 4 == 3 || n + 1 == kGeneralRegisters ? "\n" : " ");
  }
}

// Async-signal-safe.
std::uintptr_t instructionAddress(const Registers& registers) { return registers.value[kPc]; }

// Async-signal-safe.
WalkStart walkStart(const Registers& registers, std::uintptr_t, const SafeMemory&) {
  return {registers.value[kFramePointer], {}, 0};
}

}  // namespace kl
