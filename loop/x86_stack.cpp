// The stack of an x86 processor, 64-bit or 32-bit.  Everything is async-signal-safe: no allocation, no streams.
//
// A function with a frame pointer begins with pushing it, which leaves the address of its caller's frame beside its
// own return address.  The C library is built without frame pointers and uses the register as it likes, so a signal
// inside it (abort, above all) finds no chain there.  Then the stack is searched upward for the first frame of a
// function that has one, and what looks like a return address on the way is shown: a word behind a call instruction.
// A stale word may be among them; without them the function that called abort would be missing.
//
// A function that calls nothing has no frame of its own, and a call through a bad pointer ends before there is one: then
// the return address still lies at the stack pointer.

#include "loop/x86_stack.h"

namespace kl {
namespace {

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

bool isFull(const WalkStart& start) { return start.callSiteCount == start.callSites.size(); }

// What an earlier call left behind may lead into the chain, over the frames of those that run now.  A frame between
// the two is nearer; the return address of the one that it replaces is kept.
std::uintptr_t nearestFrame(std::uintptr_t found, std::uintptr_t end, std::uintptr_t top,
                            const SafeMemory& memory, WalkStart& start) {
  Frame frame;
  if (!memory.read(found, frame)) return found;
  for (std::uintptr_t place = found + sizeof frame; place < frame.next && place < end; place += kWord) {
    if (!beginsChain(place, top, memory)) continue;
    if (isFull(start)) return found;
    start.callSites[start.callSiteCount++] = frame.returnAddress;
    return nearestFrame(place, end, top, memory, start);
  }
  return found;
}

WalkStart searchStack(std::uintptr_t stackPointer, std::uintptr_t top, const SafeMemory& memory) {
  WalkStart start;
  const std::uintptr_t end = top - stackPointer < kLongestSearch ? top : stackPointer + kLongestSearch;
  for (std::uintptr_t place = stackPointer; place < end; place += kWord) {
    std::uintptr_t word = 0;
    if (!memory.read(place, word)) break;
    if (beginsChain(place, top, memory)) {
      start.frame = nearestFrame(place, end, top, memory, start);
      break;
    }
    if (!isReturnAddress(word, memory)) continue;
    start.callSites[start.callSiteCount++] = word;
    if (isFull(start)) break;
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
