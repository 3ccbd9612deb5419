// The last line of a process that broke a promise.

#include "base/assertions.h"

#include <cstdlib>
#include <string>

#include "base/report.h"

namespace kl {

void failAssertion(const char* place, const char* expression) {
  printErrorLine(std::string(place) + ": assertion failed: " + expression);
  std::abort();
}

void failAssertion(const char* place, const char* expression, const std::string& remark) {
  printErrorLine(std::string(place) + ": assertion failed: " + expression + "\n" + remark);
  std::abort();
}

}  // namespace kl
