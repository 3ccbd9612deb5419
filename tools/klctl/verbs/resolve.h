#pragma once
// resolve.h: the names in the words of the user, by the description of the service that they are for.

#include "values/dictionary.h"
#include "verbs/command_line.h"

namespace klctl {

// The dictionary of a service, which shows secrets as the command line wants it.  Throws Failure(kUsage).
Dictionary dictionaryFor(const CommandLine& line, const std::string& service);

// The command line with numbers for the object of its path and for its command.  Throws Failure(kUsage) for names that
// the dictionary does not have.
CommandLine resolved(CommandLine line, const Dictionary& dictionary);

}  // namespace klctl
