// Lines on the standard error stream, and the end that some of them announce.

#include "base/report.h"

#include <cstdlib>
#include <iostream>

namespace kl {

void reportLine(const std::string& line) { std::cerr << line + "\n" << std::flush; }

void endProcess(const std::string& line) {
  reportLine(line);
  std::exit(EXIT_FAILURE);
}

}  // namespace kl
