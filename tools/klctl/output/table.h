#pragma once
// table.h: JSON values as text that fits the terminal.

#include <string>
#include <vector>

#include "values/json.h"

namespace klctl {

// One object: a line for each member, its name and its value.
std::string objectTable(const Json& object);

// Many objects: a line for each, a column for each of `columns`.  Where such a line would be longer than `width`
// characters, every object gets its lines as objectTable gives them, with an empty one between two.
std::string objectsTable(const std::vector<Json>& objects, const std::vector<std::string>& columns,
                         std::size_t width);

// Characters in a line of the terminal that the standard output is; without limit when it is none.
std::size_t lineWidth();

}  // namespace klctl
