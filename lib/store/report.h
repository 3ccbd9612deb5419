#pragma once
// report.h: the lines by which a store reports what failed, on the standard output stream.

#include "base/report.h"

namespace kl {

inline void reportStore(const char* text) { printLine(text); }
inline void reportStore(const char* text, unsigned int number) { printLine(text, number); }

}  // namespace kl
