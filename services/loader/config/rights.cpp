// A right has a word where the library knows it; all other bits together are one number.

#include "config/rights.h"

#include <array>
#include <cstdio>
#include <utility>

namespace loader {
namespace {

constexpr std::array<std::pair<unsigned int, const char*>, 4> kWords{{{kl::RIGHT_READ, "read"},
                                                                      {kl::RIGHT_CHANGE, "change"},
                                                                      {kl::RIGHT_CONTROL, "control"},
                                                                      {kl::RIGHT_CONTENTS, "contents"}}};

std::string hexOf(unsigned int bits) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "0x%x", bits);
  return text;
}

}  // namespace

std::string wordsOf(unsigned int bits) {
  if (bits == kl::RIGHTS_ALL) return "all";
  std::string words;
  unsigned int rest = bits;
  for (const auto& [bit, word] : kWords) {
    if ((bits & bit) == 0) continue;
    words += (words.empty() ? "" : " and ") + std::string(word);
    rest &= ~bit;
  }
  if (rest != 0 || words.empty()) words += (words.empty() ? "" : " and ") + hexOf(rest);
  return words;
}

std::string wordsOf(const Rights& rights) {
  if (rights.none) return "none";
  return rights.all ? "all" : wordsOf(rights.bits);
}

}  // namespace loader
