// The registers of an x86-64 processor.  Everything is async-signal-safe: no allocation, no streams.

#include <ucontext.h>

#include "loop/processor.h"
#include "loop/x86_stack.h"

namespace kl {
namespace {

struct NamedRegister {
  const char* prefix;
  unsigned int index;
};

constexpr NamedRegister kGeneral[] = {
    {"rax=0x", REG_RAX}, {"rbx=0x", REG_RBX}, {"rcx=0x", REG_RCX}, {"rdx=0x", REG_RDX},
    {"rsi=0x", REG_RSI}, {"rdi=0x", REG_RDI}, {"rbp=0x", REG_RBP}, {"rsp=0x", REG_RSP},
    {"r8 =0x", REG_R8},  {"r9 =0x", REG_R9},  {"r10=0x", REG_R10}, {"r11=0x", REG_R11},
    {"r12=0x", REG_R12}, {"r13=0x", REG_R13}, {"r14=0x", REG_R14}, {"r15=0x", REG_R15},
};

}  // namespace

// Async-signal-safe.
Registers readRegisters(const void* context, const SafeMemory& memory) {
  const auto place = reinterpret_cast<std::uintptr_t>(context) + offsetof(ucontext_t, uc_mcontext.gregs);
  Registers result;
  static_assert(sizeof(gregset_t) <= sizeof result.value);
  if (!memory.read(place, result.value.data(), sizeof(gregset_t))) return {};
  return result;
}

// Async-signal-safe.
void writeRegisters(const Registers& registers, ReportText& out) {
  const auto& r = registers.value;
  out.putWord("rip=0x", r[REG_RIP], " ");
  out.putWord("rsp=0x", r[REG_RSP], " ");
  out.putWord("rbp=0x", r[REG_RBP], "\n");
  out.putWord("efl=0x", r[REG_EFL], " ");
  out.putWord("err=0x", r[REG_ERR], " ");
  out.putWord("trapno=0x", r[REG_TRAPNO], " ");
  out.putWord("cr2=0x", r[REG_CR2], "\n");
  unsigned int n = 0;
  for (const auto& [prefix, index] : kGeneral) out.putWord(prefix, r[index], ++n % 4 == 0 ? "\n" : " ");
}

// Async-signal-safe.
std::uintptr_t instructionAddress(const Registers& registers) { return registers.value[REG_RIP]; }

// Async-signal-safe.
WalkStart walkStart(const Registers& registers, std::uintptr_t top, const SafeMemory& memory) {
  return x86WalkStart(registers.value[REG_RSP], registers.value[REG_RBP], top, memory);
}

}  // namespace kl
