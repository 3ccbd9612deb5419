// A program that crashes on purpose, for the test of scripts/symbolize.  The test looks up the lines by their marks.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kl/runner.h"

namespace {

// On some processors a return address is only saved by a function that makes calls, and in its caller's frame.
__attribute__((noinline)) void doNothingAtAll() { asm volatile(""); }

__attribute__((noinline)) void doNothing() {
  doNothingAtAll();
  asm volatile("");
}

__attribute__((noinline)) void breakDown(const char* how) {
  doNothing();
  if (std::strcmp(how, "abort") == 0) std::abort();  // mark: abort
  volatile auto address = reinterpret_cast<std::uintptr_t>(how);
  address = 16;
  *reinterpret_cast<volatile int*>(address) = 1;  // mark: crash
  asm volatile("");
}

__attribute__((noinline)) void serve(const char* how) {
  breakDown(how);  // mark: serve
  asm volatile("");
}

}  // namespace

int main(int, char** argv) {
  kl::Runner loop;
  if (argv[1] != nullptr) serve(argv[1]);  // mark: main
  return 0;
}
