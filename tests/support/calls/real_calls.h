#pragma once
// tests/support/calls/real_calls.h: the C library's own functions, for programs that define functions of these names.

#include <dlfcn.h>

namespace kl::test {

// The function of this name behind this program's.
template <class Function>
Function* realCall(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace kl::test
