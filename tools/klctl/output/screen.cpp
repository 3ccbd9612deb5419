// A terminal that is not known, or is a dumb one, is refused before ncurses sees it: newterm would say so on it.

#include "output/screen.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "output/load_table.h"

// Behind all others, for the macros in them.
#include <ncurses.h>
#include <term.h>

namespace klctl {
namespace {

bool canMoveItsCursor() {
  const char* const name = std::getenv("TERM");
  if (name == nullptr || std::strcmp(name, "dumb") == 0) return false;
  int error = 0;
  if (::setupterm(name, STDOUT_FILENO, &error) != OK) return false;
  const char* const move = ::tigetstr("cup");
  // It says -1 of a name that it does not know.
  const bool canMove = move != nullptr && move != reinterpret_cast<const char*>(-1);
  (void)::del_curterm(cur_term);  // newterm makes its own
  return canMove;
}

}  // namespace

Screen::Screen() {
  if (::isatty(STDIN_FILENO) != 1 || ::isatty(STDOUT_FILENO) != 1 || !canMoveItsCursor()) return;
  SCREEN* const screen = ::newterm(nullptr, stdout, stdin);
  if (screen == nullptr) return;
  screen_ = screen;
  (void)cbreak();
  (void)noecho();
  (void)curs_set(0);
  (void)nodelay(stdscr, TRUE);
  (void)keypad(stdscr, TRUE);
}

Screen::~Screen() {
  if (screen_ == nullptr) return;
  (void)endwin();
  ::delscreen(static_cast<SCREEN*>(screen_));
}

void Screen::show(const std::vector<std::string>& texts, std::size_t emphasized) const {
  (void)erase();
  const std::size_t height = LINES > 0 ? static_cast<std::size_t>(LINES) : 0;
  const std::size_t width = COLS > 0 ? static_cast<std::size_t>(COLS) : 0;
  for (std::size_t i = 0; i < texts.size() && i < height; ++i) {
    if (i == emphasized) (void)attron(A_REVERSE);
    (void)mvaddstr(static_cast<int>(i), 0, cutLine(texts[i], width).c_str());
    if (i == emphasized) (void)attroff(A_REVERSE);
  }
  (void)refresh();
}

char Screen::key() const {
  const int key = getch();
  if (key == ERR) return 0;
  return key > 0 && key < 128 ? static_cast<char>(key) : '\1';
}

}  // namespace klctl
