// How a test hears of what is wrong: an exception, or the handler that it has set.

#include "testkit/failures.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "kl/test.h"

namespace kl::test {
namespace {

std::function<void(const std::string&)> failureHandler;

}  // namespace

void setFailureHandler(std::function<void(const std::string& what)> handler) {
  failureHandler = std::move(handler);
}

void report(const std::string& what) {
  if (!failureHandler) throw Failure(what);
  failureHandler(what);
}

void reportLast(const std::string& what) {
  if (!failureHandler) giveUp(what);
  failureHandler(what);
}

void giveUp(const std::string& what) {
  (void)std::fprintf(stderr, "kl::test: %s\n", what.c_str());
  std::exit(1);
}

}  // namespace kl::test
