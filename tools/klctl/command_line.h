#pragma once
// command_line.h: what the user asked for.

#include <chrono>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "message_file.h"
#include "path.h"

namespace klctl {

enum class Verb {
  kServices,
  kGet,
  kGetAll,
  kWatch,
  kSet,
  kSend,
  kStart,
  kStop,
  kRestart,
  kLeave,
  kDump,
  kUndoList,
  kUndoShow,
  kUndoRun,
  kStoreList,
  kStoreGet,
  kStoreCheck,
  kStoreCompact,
};

inline bool isUndo(Verb verb) {
  return verb == Verb::kUndoList || verb == Verb::kUndoShow || verb == Verb::kUndoRun;
}

constexpr bool isStore(Verb verb) { return verb >= Verb::kStoreList && verb <= Verb::kStoreCompact; }

// True for what is done to a service and not asked of it.
constexpr bool isAction(Verb verb) { return verb >= Verb::kStart && verb <= Verb::kLeave; }

struct CommandLine {
  Verb verb = Verb::kServices;
  PathWord path;                         // object included, whether it stood in the path or behind --id
  std::optional<unsigned int> command;   // the CMD word
  std::vector<std::string> assignments;  // field=value, unread
  std::chrono::milliseconds timeout{5000};
  bool json = false;
  bool dump = false;
  bool noReply = false;
  std::string file;                        // of kDump, "-" is the standard input; of a store its path
  FileFormat format = FileFormat::kGuess;  // what is in the file of kDump
  std::string fields;                      // --fields, else the folder beside the program
};

// The words, or the text that --help or --version asked for.  Throws Failure(kUsage).
std::variant<CommandLine, std::string> parseCommandLine(int argc, const char* const* argv);

}  // namespace klctl
