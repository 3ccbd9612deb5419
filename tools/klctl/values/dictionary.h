#pragma once
// dictionary.h: the names of one service, from its description (docs/descriptions.md).
//
//     # netif.toml: a list, in the order in which klctl shows the fields
//     fields = [
//       { name = "id", field = "u32:std.1" },
//       { name = "state", field = "u32:4", values = { stopped = 1, running = 2 } },
//     ]

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "services/describe/description.h"
#include "values/field_names.h"

namespace klctl {

// Folders of dictionaries.  Of several dictionaries of one service that in the first folder counts.
using Folders = std::vector<std::filesystem::path>;

// `own`, unless it is empty; those that KL_FIELDS names, separated by colons; .config/kl of the user; and the installed one:
// under the root of the system, beside the program (in the build tree as on an installed system), or of the prefix.
Folders dictionaryFolders(const std::filesystem::path& own);

// The knowledge of a service: the names of its fields, and its description where it has one.
struct Dictionary {
  FieldNames names;
  std::optional<describe::Description> description;
};

// That of SERVICE.toml in the first folder where there is such a file.  A service name that is no plain file name (empty, hidden, with a
// slash) has no description.  Throws Failure(kUsage), naming file, line and what was expected, when the file is not what
// it should be.
Dictionary dictionaryOf(const std::string& service, const Folders& folders);

// Its names alone.
FieldNames namesFor(const std::string& service, const Folders& folders);

// The services that have a description in one of the folders, in the order of the alphabet.
std::vector<std::string> describedServices(const Folders& folders);

// The handlers of an object by its name, none where the service itself answers.  Throws Failure(kUsage) when there is no
// such object, naming those that there are.
std::vector<unsigned int> handlersOf(const Dictionary& dictionary, const std::string& service,
                                     const std::string& object);

// A command of the service's own at these handlers, by its name.  Throws Failure(kUsage) when there is none, naming where
// there is one, or what was probably meant.
unsigned int commandOf(const Dictionary& dictionary, const std::string& service,
                       const std::vector<unsigned int>& handlers, const std::string& word);

// The name that commandOf knows, or that of a standard command, or a number.
std::string commandText(const Dictionary& dictionary, unsigned int command);

}  // namespace klctl
