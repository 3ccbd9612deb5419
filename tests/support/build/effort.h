#pragma once
// tests/support/build/effort.h: what a build can be asked for.  In an emulator everything takes ten times as long: there a
// test that is repeated to find rare orders of events, and not for what the processor does with numbers, is content with
// less.

namespace kl::test {

#ifdef KL_EMULATED
inline constexpr bool kEmulated = true;
#else
inline constexpr bool kEmulated = false;
#endif

// `all`, and in an emulator a part of it.
constexpr unsigned int repeated(unsigned int all) { return kEmulated ? all / 5 : all; }

// `all`, and under the thread sanitizer a tenth: random steps of one thread race with nobody, and take fifty times as
// long there.
#ifdef __SANITIZE_THREAD__
constexpr unsigned int inOneThread(unsigned int all) { return all / 10; }
#else
constexpr unsigned int inOneThread(unsigned int all) { return all; }
#endif

// A test that ends a process at each of its calls in turn looks, where each process takes its time, at a part of them;
// where every two calls are tried, at a part of the first ones, too.  So does a test that lets each call fail.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr unsigned int kStride = 29;
inline constexpr unsigned int kFirstStride = 3;
inline constexpr unsigned int kFaultStride = 3;
#else
inline constexpr unsigned int kStride = kEmulated ? 5 : 1;
inline constexpr unsigned int kFirstStride = 1;
inline constexpr unsigned int kFaultStride = kEmulated ? 4 : 1;
#endif

// False where a crash looks otherwise: a sanitizer and an emulator end the process themselves, or add to its stack.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kCrashesPlainly = false;
#else
inline constexpr bool kCrashesPlainly = !kEmulated;
#endif

// False where a program's memory is not its own alone: an emulator and sanitizers keep theirs in it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kIsWeighed = false;
#else
inline constexpr bool kIsWeighed = !kEmulated;
#endif

}  // namespace kl::test
