#pragma once
// page.h: what the documents say, for tests that hold them to the code.

#include <fstream>
#include <iterator>
#include <string>

namespace kl::test {

// The text of a file of the tree.
inline std::string pageOf(const std::string& file) {
  std::ifstream in(KL_SOURCE_DIR "/" + file);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline bool shows(const std::string& page, const std::string& text) {
  return page.find(text) != std::string::npos;
}

// 65,535, as tables of the documents have it.
inline std::string withCommas(unsigned long long number) {
  std::string text = std::to_string(number);
  for (std::size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, ",");
  return text;
}

}  // namespace kl::test
