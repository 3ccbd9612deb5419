#pragma once
// pages.h: a description for people.

#include <string>

#include "services/describe/description.h"

namespace klgen {

std::string markdownOf(const describe::Description& description);

// A page of section 5 of the manual.
std::string manPageOf(const describe::Description& description);

}  // namespace klgen
