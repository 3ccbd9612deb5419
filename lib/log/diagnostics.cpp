// Lines on standard output: where the log client cannot say what went wrong in the log.

#include "log/diagnostics.h"

#include <cerrno>
#include <cstring>
#include <iostream>

namespace kl::logging {

void printLine(std::string_view text, std::string_view detail) {
  std::string line(text);
  line += detail;
  line += '\n';
  std::cout.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
}

void printError(std::string_view text) { printLine(text, std::strerror(errno)); }

void printNumber(std::string_view text, unsigned int number) { printLine(text, std::to_string(number)); }

}  // namespace kl::logging
