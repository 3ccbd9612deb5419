#pragma once
// lib/loop/x86_stack.h: where the walk along the frames of an x86 processor begins.

#include <cstdint>

#include "loop/processor.h"

namespace kl {

// The innermost frame, for walkStart.  Async-signal-safe.
WalkStart x86WalkStart(std::uintptr_t stackPointer, std::uintptr_t framePointer, std::uintptr_t top,
                       const SafeMemory& memory);

}  // namespace kl
