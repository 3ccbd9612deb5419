// Control characters are written by their numbers, which is the one form that both languages have for all of them.

#include "services/describe/quoted.h"

#include <cstdio>

namespace describe {
namespace {

constexpr char kDelete = 0x7f;

bool isControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == kDelete; }

}  // namespace

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    if (!isControl(c)) {
      result += c;
      continue;
    }
    char escaped[8];
    (void)std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned int>(c));
    result += escaped;
  }
  return result + "\"";
}

}  // namespace describe
