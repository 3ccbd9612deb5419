#pragma once
// notes.h: what every page says of a field.

#include <string>

#include "services/describe/description.h"

namespace describe {

// The notes beside the name and type of a field: "what it means; in s; 1 to 10; secret; since 1.1".
std::string notesOf(const Field& field);

}  // namespace describe
