#pragma once
// programs.h: programs in C++ that use the headers of two versions of a description.

#include <string>

#include "services/describe/description.h"

namespace edits {

// The header of a version, in a name space that begins with `prefix`.
std::string headerText(describe::Description description, const std::string& prefix);

// A function that uses everything that the header of the older version has, by the names that it has there.
std::string userProgram(const describe::Description& older, const std::string& prefix);

// A function `bool NAME()`: does each version read in structures what the other one wrote from its own?
std::string exchangeProgram(const describe::Description& older, const std::string& oldPrefix,
                            const describe::Description& newer, const std::string& newPrefix,
                            const std::string& name);

// The helpers that exchange programs need above them.
extern const char* const kExchangeHelpers;

}  // namespace edits
