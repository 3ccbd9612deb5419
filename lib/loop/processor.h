#pragma once
// lib/loop/processor.h: what a crash report needs to know about the processor.  One of the files cpu_*.cpp defines it.

#include <array>
#include <cstddef>
#include <cstdint>

#include "loop/report_text.h"
#include "loop/safe_memory.h"

namespace kl {

// The registers at the moment of the signal, in an order of the processor's own.
struct Registers {
  std::array<std::uintptr_t, 48> value{};
};

// The beginning of the walk along the frames.
struct WalkStart {
  std::uintptr_t frame = 0;  // holds the address of the next frame and, behind it, a return address
  // Return addresses that were found before the chain begins, the innermost first.
  std::array<std::uintptr_t, 16> callSites{};
  std::size_t callSiteCount = 0;
};

// All of these are async-signal-safe: they use nothing but their arguments.

// Takes the registers out of the machine context that a signal handler is given.  A register that cannot be read is
// 0.
Registers readRegisters(const void* context, const SafeMemory& memory);

// The register section of the report.
void writeRegisters(const Registers& registers, ReportText& out);

// The address of the instruction that was interrupted.
std::uintptr_t instructionAddress(const Registers& registers);

// The innermost frame; `top` is where the stack ends.
WalkStart walkStart(const Registers& registers, std::uintptr_t top, const SafeMemory& memory);

}  // namespace kl
