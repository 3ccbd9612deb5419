#pragma once
// failures.h: how a test hears of what is wrong.

#include <string>

namespace kl::test {

// Calls the failure handler, or throws a Failure.
void report(const std::string& what);

// The same for what an end is met with: without a handler, a line on the standard error stream and the end of the process.
void reportLast(const std::string& what);

// For what the service cannot come back from: a line on the standard error stream and the end of the process.
[[noreturn]] void giveUp(const std::string& what);

}  // namespace kl::test
