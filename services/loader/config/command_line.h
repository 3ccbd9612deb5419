#pragma once
// command_line.h: what the loader was called with.

#include <optional>
#include <string>

namespace loader {

struct CommandLine {
  std::string file;      // of the configuration
  bool isGiven = false;  // the file was named, so it must be there
  bool checksOnly = false;
};

// None when the program is to end at once with `status`: after --help and --version, or after a mistake.
std::optional<CommandLine> readCommandLine(int argc, const char* const* argv, int& status);

}  // namespace loader
