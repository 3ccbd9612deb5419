// The stack of an x86 processor, 64-bit or 32-bit.  Everything is async-signal-safe: no allocation, no streams.
//
// A function with a frame pointer begins with pushing it, which leaves the address of its caller's frame beside its
// own return address.  The C library is built without frame pointers and uses the register as it likes, so a signal
// inside it (abort, above all) finds no chain there.  Then the stack is searched upward for the frames of functions
// that have one, and what looks like a return address on the way is shown: a word behind a call instruction.  A
// stale word may be among them; without them the function that called abort would be missing.
//
// A function that calls nothing has no frame of its own, and a call through a bad pointer ends before there is one:
// the return address still lies at the stack pointer.

#include "loop/x86_stack.h"

namespace kl {
namespace {

constexpr std::uintptr_t kWord = sizeof(std::uintptr_t);
constexpr std::uintptr_t kLongestSearch = 65536;  // bytes of stack
constexpr std::size_t kLongestCall = 7;
constexpr std::size_t kLongestChain = 256;  // frames

struct Frame {
  std::uintptr_t next;
  std::uintptr_t returnAddress;
};

// The call through a register or memory is FF with 2 in the middle of its second byte; how long it is depends on its
// operand.
bool endsWithCall(const unsigned char (&code)[kLongestCall]) {
  if (code[kLongestCall - 5] == 0xE8) return true;
  for (const std::size_t length : {2U, 3U, 4U, 6U, 7U}) {
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

// Frames that lead from one to the next.
struct Chain {
  std::uintptr_t begin = 0;
  std::uintptr_t next = 0;  // its second frame
  std::uintptr_t end = 0;   // its last frame
  std::size_t length = 0;
};

Chain chainFrom(std::uintptr_t place, std::uintptr_t top, const SafeMemory& memory) {
  Chain chain;
  chain.begin = place;
  Frame frame;
  while (chain.length < kLongestChain && memory.read(place, frame) &&
         isReturnAddress(frame.returnAddress, memory)) {
    chain.end = place;
    ++chain.length;
    if (chain.length == 1) chain.next = frame.next;
    if (!isPlace(frame.next, place + sizeof frame, top)) break;
    place = frame.next;
  }
  return chain;
}

// One frame alone may be what an earlier call left behind.  So may a whole chain; but that ends sooner, or it leads
// into the chain of the functions that run and leaves some of their frames out.
bool isBetter(const Chain& chain, const Chain& other) {
  if (chain.length < 2) return false;
  return chain.end != other.end ? chain.end > other.end : chain.length >= other.length;
}

Chain bestChain(std::uintptr_t begin, std::uintptr_t end, std::uintptr_t top, const SafeMemory& memory) {
  Chain best;
  std::uintptr_t member = 0;  // the next frame of the best chain, whose own chain is shorter
  for (std::uintptr_t place = begin; place < end; place += kWord) {
    Frame frame;
    if (!memory.read(place, frame)) break;
    if (place == member) {
      member = frame.next;
      continue;
    }
    if (!isPlace(frame.next, place + sizeof frame, top)) continue;
    const Chain chain = chainFrom(place, top, memory);
    if (!isBetter(chain, best)) continue;
    best = chain;
    member = chain.next;
  }
  return best;
}

WalkStart searchStack(std::uintptr_t stackPointer, std::uintptr_t top, const SafeMemory& memory) {
  const std::uintptr_t limit = top - stackPointer < kLongestSearch ? top : stackPointer + kLongestSearch;
  WalkStart start;
  start.frame = bestChain(stackPointer, limit, top, memory).begin;
  const std::uintptr_t end = start.frame != 0 ? start.frame : limit;
  for (std::uintptr_t place = stackPointer; place < end; place += kWord) {
    std::uintptr_t word = 0;
    if (!memory.read(place, word)) break;
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
WalkStart x86WalkStart(std::uintptr_t stackPointer, std::uintptr_t framePointer, std::uintptr_t top,
                       const SafeMemory& memory) {
  if (isPlace(framePointer, stackPointer, top) && holdsReturnAddress(framePointer, memory))
    return withCallAtStackPointer(framePointer, stackPointer, memory);
  return stackPointer < top ? searchStack(stackPointer, top, memory) : WalkStart{};
}

}  // namespace kl
