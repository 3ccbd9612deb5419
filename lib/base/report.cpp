// Lines on the two standard streams, and the end that some of them announce.

#include "base/report.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace kl {
namespace {

void writeLine(std::ostream& stream, std::string line) {
  line += '\n';
  stream.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
}

}  // namespace

std::string decimal(long long number) {
  char text[24];
  return {text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%lld", number))};
}

void printLine(const char* text) { writeLine(std::cout, text); }

void printLine(const char* text, const char* detail) { writeLine(std::cout, std::string(text) + detail); }

void printLine(const char* text, long long number, const char* unit) {
  writeLine(std::cout, text + decimal(number) + unit);
}

void printErrno(const char* text) { printLine(text, std::strerror(errno)); }

void printErrorLine(const std::string& line) { writeLine(std::cerr, line); }

void endProcess(const std::string& line) {
  printErrorLine(line);
  std::exit(EXIT_FAILURE);
}

void endProcess(const char* text) { endProcess(std::string(text)); }

void endProcess(const char* text, long long number) { endProcess(text + decimal(number)); }

void endProcessAfterCall(const char* text, long long result) {
  const int error = errno;
  endProcess(text + decimal(result) + ", errno: " + decimal(error));
}

}  // namespace kl
