// What a broken promise says before the process ends.

#include "base/assertions.h"

#include <cstdlib>
#include <iostream>
#include <string>

namespace kl {

// Every assertion of this folder names the folder's chief file.
void failAssertion(unsigned int line, const char* expression) {
  std::cerr << "looper.cpp:" + std::to_string(line) + ": assertion failed: " + expression + "\n";
  std::abort();
}

}  // namespace kl
