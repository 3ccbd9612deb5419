#pragma once
// tests/support/journal.h: the order in which callbacks ran, as one line of words.

#include <string>

namespace kl::test {

class Journal {
 public:
  void note(const std::string& word) { text_ += text_.empty() ? word : " " + word; }
  const std::string& text() const { return text_; }
  void clear() { text_.clear(); }

 private:
  std::string text_;
};

}  // namespace kl::test
