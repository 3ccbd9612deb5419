// A text is read character by character; bytes that begin no character of UTF-8 are escaped one at a time, so that the
// character behind them is found again.  Overlong forms, surrogates and numbers above U+10FFFF are no UTF-8: a
// terminal that takes them would be given what is escaped in its plain form.

#include "services/common/text.h"

#include <algorithm>
#include <cstddef>

namespace common {
namespace {

struct Character {
  char32_t code = 0;
  std::size_t bytes = 0;  // 0: the bytes are no UTF-8
};

constexpr char32_t kLeastCode[] = {0, 0, 0x80, 0x800, 0x10000};  // by the number of bytes
constexpr char32_t kMostCode = 0x10ffff;

unsigned char byteAt(std::string_view text, std::size_t at) { return static_cast<unsigned char>(text[at]); }

std::size_t bytesAfter(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xc0 || lead > 0xf7) return 0;
  return lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
}

Character firstOf(std::string_view text) {
  const unsigned char lead = byteAt(text, 0);
  const std::size_t bytes = bytesAfter(lead);
  if (bytes == 1) return {lead, 1};
  if (bytes == 0 || text.size() < bytes) return {};
  char32_t code = lead & (0x7fu >> bytes);
  for (std::size_t i = 1; i < bytes; ++i) {
    if ((byteAt(text, i) & 0xc0) != 0x80) return {};
    code = code << 6 | (byteAt(text, i) & 0x3f);
  }
  const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
  if (code < kLeastCode[bytes] || code > kMostCode || isSurrogate) return {};
  return {code, bytes};
}

bool isControl(char32_t code) { return code < 0x20 || (code >= 0x7f && code <= 0x9f); }

bool changesDirection(char32_t code) {
  return code == 0x061c || code == 0x200e || code == 0x200f || (code >= 0x202a && code <= 0x202e) ||
         (code >= 0x2066 && code <= 0x2069);
}

bool endsLine(char32_t code) { return code == 0x2028 || code == 0x2029; }

bool isPlain(char c) { return c >= 0x20 && c < 0x7f && c != '\\'; }

void appendEscaped(std::string& to, std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    to += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
  }
}

}  // namespace

std::string printable(std::string_view text, Newline newline) {
  if (std::all_of(text.begin(), text.end(), isPlain)) return std::string(text);
  std::string result;
  while (!text.empty()) {
    const Character c = firstOf(text);
    const std::string_view bytes = text.substr(0, std::max<std::size_t>(c.bytes, 1));
    text.remove_prefix(bytes.size());
    const bool mayStay = c.bytes > 0 && !isControl(c.code) && !changesDirection(c.code) && !endsLine(c.code);
    if (c.code == '\\') result += "\\\\";
    else if (mayStay || (c.code == '\n' && newline == Newline::kKept)) result += bytes;
    else appendEscaped(result, bytes);
  }
  return result;
}

}  // namespace common
