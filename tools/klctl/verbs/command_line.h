#pragma once
// command_line.h: the words of the user, read.

#include <chrono>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ask/path.h"
#include "output/load_table.h"
#include "values/dictionary.h"
#include "values/message_file.h"

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
  kReload,
  kRequests,
  kStuck,
  kGraph,
  kTop,
  kTrace,
  kMetrics,
  kCapture,
  kCrashList,
  kCrashShow,
  kDump,
  kUndoList,
  kUndoShow,
  kUndoRun,
  kStoreList,
  kStoreGet,
  kStoreCheck,
  kStoreCompact,
  kLog,
  kLogFollow,
  kLogMute,
  kLogUnmute,
  kRightsExplain,
  kRightsList,
  kHelp,
  kIntrospect,
  kNew,
  kComplete,
};

inline constexpr unsigned int kVerbs = static_cast<unsigned int>(Verb::kComplete) + 1;  // the number of verbs

// The filter of the log.
struct LogWords {
  std::vector<std::string> topics;          // the one to mute, with kLogMute and kLogUnmute
  std::optional<unsigned long long> since;  // nanoseconds since 1970
  std::string service;
  std::string level;
  std::string grep;
  std::optional<unsigned int> last;  // so many lines, the newest

  bool isFilter() const {
    return !topics.empty() || since || !service.empty() || !level.empty() || !grep.empty() || last;
  }
};

// The table that top shows.
struct TopWords {
  std::chrono::milliseconds interval{2000};
  unsigned int count = 0;  // tables; 0: until the user has enough
  LoadOrder order = LoadOrder::kId;
};

// The messages that kTrace shows and kCapture keeps.
struct TraceWords {
  std::string service;  // one end; empty: any
  std::string peer;     // the other end
  std::string command;
  bool errorsOnly = false;
  unsigned int slowMs = 0;       // replies that took as long; 0: everything
  unsigned long long count = 0;  // after which it ends; 0: never
};

// What kGraph prints, unless that is JSON.
enum class GraphFormat { kTable, kDot, kSvg };

struct CommandLine {
  Verb verb = Verb::kServices;
  NamedPath path;                       // object included, whether it stood in the path or behind --id
  std::optional<unsigned int> command;  // the CMD word
  std::string commandName;  // the CMD word, where only the service's description can tell its number
  std::vector<std::string> assignments;  // field=value, unread
  std::chrono::milliseconds timeout{5000};
  bool json = false;
  bool dump = false;
  bool secrets = false;
  bool noReply = false;
  std::string file;  // of kDump, "-" is the standard input; of a store its path; of kNew the name;
                     // of kCapture where it goes, "-" is the standard output
  FileFormat format = FileFormat::kGuess;  // what is in the file of kDump
  Folders fields;                          // where dictionaries are looked for
  LogWords log;
  TopWords top;
  TraceWords trace;
  GraphFormat graph = GraphFormat::kTable;
  bool subscriptions = false;     // of kServices: those instead
  unsigned int captureBytes = 0;  // of each message, 0: none
  std::string user;               // whose rights kRightsExplain explains
  std::string sender;             // the service that sends for him; empty: any other process of his
  // Of kComplete, the words behind klctl; the cursor is at the end of the last one.
  std::vector<std::string> unfinished;
};

// The words, or the text that --help or --version asked for.  Throws Failure(kUsage).
std::variant<CommandLine, std::string> parseCommandLine(int argc, const char* const* argv);

// A place in a command line, and what may stand there.
struct Place {
  struct Word {
    std::string word;
    std::string about;
  };
  std::vector<Word> verbs;
  std::vector<Word> options;
  // The other words, as the usage text calls them: PATH, SERVICE, CMD, or the option whose value it is.
  std::string argument;
  std::string verb;                    // that the place belongs to: "log mute"; empty in front of one
  std::vector<std::string> arguments;  // those of the verb in front of the place
};

// The place behind these words.  Mistakes among them change nothing.
Place placeBehind(const std::vector<std::string>& words);

}  // namespace klctl
