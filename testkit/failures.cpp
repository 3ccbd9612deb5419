// How a test hears of what is wrong: an exception, or the handler that it has set.

#include "testkit/failures.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

#include "kl/test.h"

namespace kl::test {
namespace {

std::function<void(const std::string&)> failureHandler;

void print(const std::string& what) { (void)std::fprintf(stderr, "kl::test: %s\n", what.c_str()); }

}  // namespace

void setFailureHandler(std::function<void(const std::string& what)> handler) {
  failureHandler = std::move(handler);
}

void report(const std::string& what) {
  if (!failureHandler) throw Failure(what);
  failureHandler(what);
}

// Where an exception is on its way, the test fails anyway.
void reportLast(const std::string& what) {
  if (failureHandler) return failureHandler(what);
  if (std::uncaught_exceptions() == 0) giveUp(what);
  print(what);
}

void giveUp(const std::string& what) {
  print(what);
  std::exit(1);
}

}  // namespace kl::test
