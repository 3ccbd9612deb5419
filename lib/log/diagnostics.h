#pragma once
// diagnostics.h: what the log client has to say about itself.

#include <string>
#include <string_view>

namespace kl::logging {

// One line on standard output, in one piece.
void printLine(std::string_view text, std::string_view detail = {});

// The line, and what errno says behind it.
void printError(std::string_view text);

// The line, and a number behind it.
void printNumber(std::string_view text, unsigned int number);

}  // namespace kl::logging
