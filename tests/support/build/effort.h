#pragma once
// tests/support/build/effort.h: how much a test does of what it repeats.  In an emulator everything takes ten times as long:
// there a test that is repeated to find rare orders of events, and not for what the processor does with numbers, is
// content with less.

namespace kl::test {

#ifdef KL_EMULATED
inline constexpr bool kEmulated = true;
#else
inline constexpr bool kEmulated = false;
#endif

// `all`, and in an emulator a part of it.
constexpr unsigned int repeated(unsigned int all) { return kEmulated ? all / 5 : all; }

}  // namespace kl::test
