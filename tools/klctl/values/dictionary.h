#pragma once
// dictionary.h: the names of the fields of one service, from its description (docs/descriptions.md).
//
//     # netif.toml: a list, in the order in which klctl shows the fields
//     fields = [
//       { name = "id", field = "u32:std.1" },
//       { name = "state", field = "u32:4", values = { stopped = 1, running = 2 } },
//     ]

#include <filesystem>
#include <string>

#include "values/field_names.h"

namespace klctl {

// The folder of the dictionaries: that beside the program, in the build tree as on an installed system.
std::filesystem::path dictionaryFolder();

// The built-in names and those of FOLDER/SERVICE.toml, if there is such a file.  A service name that is no plain
// file name (empty, hidden, with a slash) has no dictionary.  Throws Failure(kUsage), naming file, line and what
// was expected, when the file is not what it should be.
FieldNames namesFor(const std::string& service, const std::filesystem::path& folder);

}  // namespace klctl
