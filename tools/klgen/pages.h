#pragma once
// pages.h: a description for people, and for programs that do not read TOML.

#include <string>

#include "services/describe/description.h"

namespace klgen {

std::string markdownOf(const describe::Description& description);

// A page of section 5 of the manual.
std::string manPageOf(const describe::Description& description);

// One object of JSON, in UTF-8; docs/descriptions.md has its keys.
std::string jsonOf(const describe::Description& description);

// What a page says of a field beside its name and type: "what it means, in s, 1 to 10, secret, since 1.1".
std::string notesOf(const describe::Field& field);

}  // namespace klgen
