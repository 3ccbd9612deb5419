#pragma once
// assertions.h: promises that the program itself breaks.  They are checked in every build, because
// what follows a broken one cannot be mended; what comes from outside never reaches them.

namespace kl {

// Prints "looper.cpp:582: assertion failed: <expression>" on the standard error stream and aborts.
[[noreturn]] void failAssertion(unsigned int line, const char* expression);

}  // namespace kl

// The line is passed where it is an identifier that people search for: it does not move with the file.
#define KL_ASSERT_LINE(line, ...) \
  (static_cast<bool>(__VA_ARGS__) ? void() : ::kl::failAssertion((line), #__VA_ARGS__))

#define KL_ASSERT(...) KL_ASSERT_LINE(__LINE__, __VA_ARGS__)
