// The registers of a 32-bit x86 processor.  Everything is async-signal-safe: no allocation, no streams.

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
    {"eax=0x", REG_EAX}, {"ebx=0x", REG_EBX}, {"ecx=0x", REG_ECX}, {"edx=0x", REG_EDX},
    {"esi=0x", REG_ESI}, {"edi=0x", REG_EDI}, {"ebp=0x", REG_EBP}, {"esp=0x", REG_ESP},
};

// The machine context keeps it apart from the other registers; here it stands behind them.
constexpr std::size_t kFaultAddress = NGREG;

}  // namespace

// Async-signal-safe.
Registers readRegisters(const void* context, const SafeMemory& memory) {
  const auto place = reinterpret_cast<std::uintptr_t>(context);
  Registers result;
  static_assert(sizeof(gregset_t) < sizeof result.value);
  if (!memory.read(place + offsetof(ucontext_t, uc_mcontext.gregs), result.value.data(), sizeof(gregset_t)) ||
      !memory.read(place + offsetof(ucontext_t, uc_mcontext.cr2), result.value[kFaultAddress]))
    return {};
  return result;
}

// Async-signal-safe.
void writeRegisters(const Registers& registers, ReportText& out) {
  const auto& r = registers.value;
  out.putWord("eip=0x", r[REG_EIP], " ");
  out.putWord("esp=0x", r[REG_ESP], " ");
  out.putWord("ebp=0x", r[REG_EBP], "\n");
  out.putWord("efl=0x", r[REG_EFL], " ");
  out.putWord("err=0x", r[REG_ERR], " ");
  out.putWord("trapno=0x", r[REG_TRAPNO], " ");
  out.putWord("cr2=0x", r[kFaultAddress], "\n");
  unsigned int n = 0;
  for (const auto& [prefix, index] : kGeneral) out.putWord(prefix, r[index], ++n % 4 == 0 ? "\n" : " ");
}

// Async-signal-safe.
std::uintptr_t instructionAddress(const Registers& registers) { return registers.value[REG_EIP]; }

// Async-signal-safe.
WalkStart walkStart(const Registers& registers, std::uintptr_t top, const SafeMemory& memory) {
  return x86WalkStart(registers.value[REG_ESP], registers.value[REG_EBP], top, memory);
}

}  // namespace kl
