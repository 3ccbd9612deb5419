#include "tests/support/hex.h"

#include <cctype>

namespace kl::test {
namespace {

constexpr char kDigits[] = "0123456789abcdef";

unsigned digitValue(char digit) {
  const auto d = static_cast<unsigned char>(std::tolower(static_cast<unsigned char>(digit)));
  return static_cast<unsigned>(d <= '9' ? d - '0' : d - 'a' + 10);
}

}  // namespace

std::string hex(const std::vector<unsigned char>& bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0 && i % 2 == 0) text += ' ';
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

std::vector<unsigned char> bytes(std::string_view text) {
  std::vector<unsigned char> result;
  bool half = false;
  for (const char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c)) == 0) continue;
    if (half) result.back() = static_cast<unsigned char>(result.back() * 16U | digitValue(c));
    else result.push_back(static_cast<unsigned char>(digitValue(c)));
    half = !half;
  }
  return result;
}

}  // namespace kl::test
