#pragma once
// command_line.h: what the log service was called with.

#include <optional>
#include <string>

namespace logd {

struct CommandLine {
  std::string file;      // of the configuration
  bool isGiven = false;  // the file was named, so it must be there
  bool checksOnly = false;
  std::string syslog;  // the socket that gets every line, too; empty: as the configuration says
};

// None when the program is to end at once with `status`: after --help and --version, or after a mistake.
std::optional<CommandLine> readCommandLine(int argc, const char* const* argv, int& status);

}  // namespace logd
