// Prints what the library's objects take, one "name bytes" a line: the handles by sizeof, the blocks
// behind a message as asked from the heap.

#include <cstdio>
#include <memory>
#include <vector>

#include "bench/support/allocations.h"
#include "kl/message.h"

#if __has_include("kl/runner.h")
#include "kl/runner.h"
#endif
#if __has_include("kl/looper.h")
#include "kl/looper.h"
#endif

namespace {

void print(const char* name, std::size_t bytes) { std::printf("%s\t%zu\n", name, bytes); }

void printHeapOfMessages() {
  bench::restartAllocations();
  const kl::message empty;
  print("heap of an empty message", bench::allocations().bytes);

  kl::message one;
  bench::restartAllocations();
  one.insert_u32(0x08000001, 1);
  print("first block of a message with one number", bench::allocations().firstBytes);
}

}  // namespace

int main() {
  print("kl::message", sizeof(kl::message));
#if __has_include("kl/runner.h")
  print("kl::ThinRunner", sizeof(kl::ThinRunner));
  print("kl::Runner", sizeof(kl::Runner));
#endif
#if __has_include("kl/looper.h")
  print("kl::Handler", sizeof(kl::Handler));
  print("kl::Looper", sizeof(kl::Looper));
#endif
  printHeapOfMessages();
}
