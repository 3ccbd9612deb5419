#pragma once
// lib/loop/maps.h: the maps section of a crash report.

#include "loop/report_text.h"

namespace kl {

// The short texts that the handler of a crash reads: the program's path, the lines of the maps.
inline constexpr unsigned int kTextBytes = 100;
extern char textBuffer[kTextBytes];

// Writes the lines of an open memory map file that name executable mappings.
//
// Async-signal-safe: read(2) and ReportText only; uses textBuffer.
void writeExecutableMaps(int fd, ReportText& out);

}  // namespace kl
