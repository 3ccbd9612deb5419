// The crash report's view of an x86-64 processor.  Everything is async-signal-safe: no allocation, no streams.
//
// A function with a frame pointer begins with pushing rbp, which leaves the address of its caller's frame beside its
// own return address.  The C library is built without frame pointers and uses rbp as it likes, so a signal inside
// it (abort, above all) finds no chain there.  Then the stack is searched upward for the first frame of a function
// that has one, and what looks like a return address on the way is shown: a word behind a call instruction.
// A stale word may be among them; without them the function that called abort would be missing.
//
// A function that calls nothing has no frame of its own, and a call through a bad pointer ends before there is one: then
// the return address still lies at the stack pointer.

#include <ucontext.h>

#include "loop/processor.h"

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

constexpr std::uintptr_t kWord = sizeof(std::uintptr_t);
constexpr std::uintptr_t kLongestSearch = 65536;  // bytes of stack
constexpr std::size_t kLongestCall = 7;

struct Frame {
  std::uintptr_t next;
  std::uintptr_t returnAddress;
};

// The call through a register or memory is FF with 2 in the middle of its second byte; how long it is depends on its
// operand.
bool endsWithCall(const unsigned char (&code)[kLongestCall]) {
  if (code[kLongestCall - 5] == 0xE8) return true;
  for (const std::size_t length : {2, 3, 4, 6, 7}) {
    const unsigned char* call = code + kLongestCall - length;
    if (call[0] == 0xFF && (call[1] & 0x38) == 0x10) return true;
  }
  return false;
}

bool isReturnAddress(std::uintptr_t address, const SafeMemory& memory) {
  unsigned char code[kLongestCall];
  return address > kLongestCall && memory.read(address - kLongestCall, code) && endsWithCall(code);
}

bool isPlace(std::uintptr_t place, std::uintptr_t stackPointer, std::uintptr_t top) {
  return place % kWord == 0 && place >= stackPointer && place < top;
}

bool holdsReturnAddress(std::uintptr_t place, const SafeMemory& memory) {
  Frame frame;
  return memory.read(place, frame) && isReturnAddress(frame.returnAddress, memory);
}

// A frame and its caller's: one alone may be what an earlier call left behind.
bool beginsChain(std::uintptr_t place, std::uintptr_t top, const SafeMemory& memory) {
  Frame frame;
  return memory.read(place, frame) && isPlace(frame.next, place + sizeof frame, top) &&
         isReturnAddress(frame.returnAddress, memory) && holdsReturnAddress(frame.next, memory);
}

WalkStart searchStack(std::uintptr_t stackPointer, std::uintptr_t top, const SafeMemory& memory) {
  WalkStart start;
  const std::uintptr_t end = top - stackPointer < kLongestSearch ? top : stackPointer + kLongestSearch;
  for (std::uintptr_t place = stackPointer; place < end; place += kWord) {
    std::uintptr_t word = 0;
    if (!memory.read(place, word)) break;
    if (beginsChain(place, top, memory)) {
      start.frame = place;
      break;
    }
    if (!isReturnAddress(word, memory)) continue;
    start.callSites[start.callSiteCount++] = word;
    if (start.callSiteCount == start.callSites.size()) break;
  }
  return start;
}

WalkStart withCallAtStackPointer(std::uintptr_t frame, std::uintptr_t stackPointer,
                                 const SafeMemory& memory) {
  WalkStart start;
  start.frame = frame;
  std::uintptr_t word = 0;
  if (memory.read(stackPointer, word) && isReturnAddress(word, memory))
    start.callSites[start.callSiteCount++] = word;
  return start;
}

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
  const std::uintptr_t stackPointer = registers.value[REG_RSP];
  const std::uintptr_t framePointer = registers.value[REG_RBP];
  if (isPlace(framePointer, stackPointer, top) && holdsReturnAddress(framePointer, memory))
    return withCallAtStackPointer(framePointer, stackPointer, memory);
  return stackPointer < top ? searchStack(stackPointer, top, memory) : WalkStart{};
}

}  // namespace kl
