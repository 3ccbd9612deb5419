#pragma once
// first_start.h: remembers which programs have run on this machine.

#include <string>

namespace kl {

// The path of this program's marker: its name in /kelo/run.
std::string firstStartMarker();

// Is there a marker of this user's or of root's?
bool hasMarker(const std::string& path);

// Makes the marker, where the name is free.
void leaveMarker(const std::string& path);

}  // namespace kl
