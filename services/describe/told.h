#pragma once
// told.h: what a process says of itself, beside what is installed.

#include <string>
#include <vector>

#include "services/describe/description.h"

namespace describe {

// The installed description with what the process names beyond it: fields and settings whose name and number are both
// new, objects, commands and topics.  Such a command has no right and such a field is not secret, whatever the process
// says: of these two only the installed description tells.  Words that are no names are left out.
Description completed(const Description& installed, const Description& told);

// The names that the process and the installed description have otherwise, or one of both alone: a sentence each.
std::vector<std::string> differencesOf(const Description& installed, const Description& told);

}  // namespace describe
