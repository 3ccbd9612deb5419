#pragma once
// json.h: a description for programs that do not read TOML.

#include <string>

#include "services/describe/description.h"

namespace describe {

// One object of JSON, in UTF-8; docs/descriptions.md has its keys.
std::string jsonOf(const Description& description);

}  // namespace describe
