#pragma once
// command_line.h: what a companion was called with.

#include <optional>
#include <string>
#include <vector>

#include "services/common/configuration_file.h"

namespace common {

// Exit statuses beside 0, an orderly end.
inline constexpr int kCannotRun = 1;
inline constexpr int kMistake = 2;  // in the command line or in the configuration

// The words of the help of a companion.
struct Program {
  std::string name;
  std::string purpose;                 // one sentence
  std::string configurationFile = {};  // the one that is read unless another is named; empty: it needs none
  std::string noun = {};               // "the loader"; for a program with a configuration
};

// An option without a value that one program has for itself.
struct Flag {
  std::string name;
  std::string help;
  bool* isGiven;
};

// The same with a value, which is one of these words; needed beside it is --check.
struct Choice {
  std::string name;
  std::string help;
  std::vector<std::string> words;
  std::string* word;
};

struct CommandLine {
  std::string file;      // of the configuration
  bool isGiven = false;  // the file was named, so it must exist
  bool checksOnly = false;

  // The text of the file; empty where none was named and none is at the usual place.
  std::optional<std::string> readFile(Mistakes& mistakes) const;
};

// Reads --help and --version, for a program with a configuration --config FILE and --check, and the program's own
// flags and choices.  None when the program is to end at once with `status`: after --help and --version, or after a mistake.
std::optional<CommandLine> readCommandLine(const Program& program, int argc, const char* const* argv,
                                           int& status, const std::vector<Flag>& flags = {},
                                           const std::vector<Choice>& choices = {});

}  // namespace common
