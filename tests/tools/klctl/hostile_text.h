#pragma once
// hostile_text.h: text that would steer a terminal, and its form in every output of klctl.

#include <string>

namespace klctl {

// ESC, BEL, DEL, CSI as one character (U+009B), a change of direction (U+202E), a byte that is no UTF-8, a backslash.
inline const std::string kHostile = "\x1b[2J\x07\x7f\xc2\x9b\xe2\x80\xae\xff\\";
inline const std::string kHarmless = "\\x1b[2J\\x07\\x7f\\xc2\\x9b\\xe2\\x80\\xae\\xff\\\\";

}  // namespace klctl
