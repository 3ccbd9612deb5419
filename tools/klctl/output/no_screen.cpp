// Stands in the place of screen.cpp where klctl is built without ncurses: no terminal can be taken.

#include "output/screen.h"

namespace klctl {

Screen::Screen() = default;
Screen::~Screen() = default;
void Screen::show(const std::vector<std::string>&, std::size_t) const {}
char Screen::key() const { return 0; }

}  // namespace klctl
