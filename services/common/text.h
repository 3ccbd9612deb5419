#pragma once
// text.h: text from elsewhere, made safe for a terminal and for a file of lines.

#include <string>
#include <string_view>

namespace common {

enum class Newline { kEscaped, kKept };

// Returns the text with every character escaped that could steer a terminal, change the order in which a line is read,
// or begin another line:
//
//     a backslash                               two of them
//     control characters, 00 to 1f and 7f       \x1b        with Newline::kKept a newline stays
//     control characters, U+0080 to U+009F      \xc2\x9b    their bytes in UTF-8
//     U+061C, U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069: direction of writing         \xe2\x80\xae
//     U+2028, U+2029: ends of lines and paragraphs                                             \xe2\x80\xa8
//     bytes that are no UTF-8                   \xff
//
// The result is UTF-8, and the text can be had back from it: each \xHH was one byte.
std::string printable(std::string_view text, Newline newline = Newline::kEscaped);

}  // namespace common
