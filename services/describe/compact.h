#pragma once
// compact.h: a description as a short text, which a process carries and gives to whoever asks.

#include <string>

#include "services/describe/description.h"

namespace describe {

// The longest text that a process gives; kl/description.h has it, too.
inline constexpr std::size_t kMostCompactBytes = 4096;

// A text that read() takes, without what is reserved.  Where that is longer than kMostCompactBytes, sentences are left
// out; where it still is, everything but names, numbers and values, and `secret`.  Empty where that is too long as well.
std::string compactOf(const Description& description);

}  // namespace describe
