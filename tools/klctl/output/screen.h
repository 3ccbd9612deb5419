#pragma once
// screen.h: the whole terminal, line by line.

#include <string>
#include <vector>

namespace klctl {

// Takes the terminal of the standard streams until it ends, and then leaves it as it was.
//
// Errors:    isOpen() is false where there is no terminal, or one that cannot put its cursor anywhere.
// Ownership: one at a time; owns the state of the terminal.
// Threads:   belongs to one thread.
// Cost:      shows only what has changed.
class Screen {
 public:
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  bool isOpen() const { return screen_ != nullptr; }

  // Shows as much of the lines as fits.  The line `emphasized` stands out.
  void show(const std::vector<std::string>& lines, std::size_t emphasized) const;

  // The next key that was pressed, 0 when there is none; any that is no character is a '\1'.
  char key() const;

 private:
  void* screen_ = nullptr;  // a SCREEN of ncurses
};

}  // namespace klctl
