#pragma once
// new_service.h: the verb that makes the beginning of a service.

#include "verbs/verb.h"

namespace klctl {

// Makes a folder with the name of the service: description, code, test, CMake file, the loader's section and a unit file.
// Throws Failure when the name is none, the folder exists, or something cannot be written.
void makeService(const CommandLine& line, const Channels& channels);

}  // namespace klctl
