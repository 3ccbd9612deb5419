#pragma once
// first_start.h: remembers which programs have run on this machine.

#include <string>

namespace kl {

// The file that says that this program has run: its name in /kelo/run.
std::string firstStartMarker();

bool hasMarker(const std::string& path);
void leaveMarker(const std::string& path);

}  // namespace kl
