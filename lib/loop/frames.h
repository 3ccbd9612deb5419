#pragma once
// lib/loop/frames.h: the backtrace section of a crash report.

#include <cstdint>

#include "loop/processor.h"

namespace kl {

// Writes "0x", the address and " " for each return address along the chain of frames that lie strictly above
// `bottom` and strictly below `top`.  A frame that cannot be read, a return address of 0 or a chain that does not
// rise ends the walk.
//
// Async-signal-safe: SafeMemory and ReportText only.
void writeBacktrace(const WalkStart& start, std::uintptr_t bottom, std::uintptr_t top,
                    const SafeMemory& memory, ReportText& out);

}  // namespace kl
