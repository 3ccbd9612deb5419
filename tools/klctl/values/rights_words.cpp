// A right has a word where the library names it.

#include "values/rights_words.h"

#include <array>
#include <utility>

#include "kl/conventions.h"

namespace klctl {
namespace {

constexpr std::array<std::pair<unsigned int, const char*>, 4> kWords{{{kl::RIGHT_READ, "read"},
                                                                      {kl::RIGHT_CHANGE, "change"},
                                                                      {kl::RIGHT_CONTROL, "control"},
                                                                      {kl::RIGHT_CONTENTS, "contents"}}};

// `quote` stands around each word, "and" between two.
std::string joined(unsigned int bits, const std::string& quote) {
  std::string text;
  const auto add = [&](const std::string& mark, const std::string& word) {
    if (!text.empty()) text += " and ";
    text.append(mark).append(word).append(mark);
  };
  for (const auto& [bit, word] : kWords) {
    if ((bits & bit) != 0) add(quote, word);
    bits &= ~bit;
  }
  if (bits != 0) add("", std::to_string(bits));
  return text;
}

}  // namespace

std::string rightsText(unsigned int bits) { return bits == 0 ? "none" : joined(bits, ""); }

std::string rightsPhrase(unsigned int bits) {
  if (bits == 0) return "no right (0)";
  if (bits == kl::RIGHTS_ALL) return "all rights";
  if ((bits & kl::RIGHT_OF_NOBODY) != 0) return "a right that only root has";
  return joined(bits, "\"") + " (" + std::to_string(bits) + ")";
}

}  // namespace klctl
