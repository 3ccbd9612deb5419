#pragma once
// assertions.h: promises that the program itself breaks.  Input from outside never reaches one.

#include <cassert>
#include <string>

namespace kl {

// Prints "<place>: assertion failed: <expression>" on the standard error stream and aborts.
[[noreturn]] void failAssertion(const char* place, const char* expression);
// The same with a second line of details.
[[noreturn]] void failAssertion(const char* place, const char* expression, const std::string& remark);

}  // namespace kl

#define KL_TEXT_OF_VALUE(value) #value
#define KL_TEXT_OF(macro) KL_TEXT_OF_VALUE(macro)

// Checked in every build, because what follows a broken one cannot be mended.
#define KL_ASSERT(...) KL_ASSERT_AT(__FILE_NAME__ ":" KL_TEXT_OF(__LINE__), __VA_ARGS__)

// The same with its place, such as "looper.cpp:582", where that is an identifier that people search for: it does not
// move with the file.
#define KL_ASSERT_AT(place, ...) \
  (static_cast<bool>(__VA_ARGS__) ? void() : ::kl::failAssertion(place, #__VA_ARGS__))

// The same with a second line, which is put together only when it is needed.
#define KL_ASSERT_AT_SAYING(place, remark, ...) \
  (static_cast<bool>(__VA_ARGS__) ? void() : ::kl::failAssertion(place, #__VA_ARGS__, remark))

// Checked in debug builds: a promise of a data structure to itself, too dear to be asked for each time.
#ifdef NDEBUG
// Not evaluated, but seen: what only an invariant uses is no unused variable.
#define KL_INVARIANT(holds) static_cast<void>(sizeof(!(holds)))
#else
#define KL_INVARIANT(holds) assert(holds)
#endif
