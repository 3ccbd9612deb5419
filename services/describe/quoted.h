#pragma once
// quoted.h: a text between quotation marks.

#include <string>

namespace describe {

// The text as TOML and JSON both write it: a quotation mark, a backslash and the control characters are escaped, all other
// bytes stay.
std::string quoted(const std::string& text);

}  // namespace describe
