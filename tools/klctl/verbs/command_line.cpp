// CLI11 splits the command line into words; this file checks the meaning of each.  Every verb names the interpretation of
// its words when it is added: none, a path (addRequest), or the name of a service (addAction).

#include "verbs/command_line.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <map>

#include "kl/conventions.h"
#include "values/dictionary.h"
#include "values/failure.h"
#include "values/field_id.h"
#include "values/field_names.h"
#include "values/similar.h"
#include "values/since.h"
#include "values/units.h"

namespace klctl {
namespace {
constexpr double kShortestTimeout = 0.01;
constexpr double kLongestTimeout = 1e6;
constexpr unsigned int kMostTables = 1'000'000'000;
constexpr unsigned int kMostCaptured = kl::FRAME_MOST_BYTES;
constexpr unsigned long long kShortestIntervalMs = 100;
constexpr unsigned long long kLongestTimeMs = 86'400'000;
// For the registration, and for each answer: 200 ms all in all.
constexpr std::chrono::milliseconds kMoment(90);
constexpr std::chrono::milliseconds kPatienceWithTheStuck(500);

// The options that may stand before and after any verb, and that not every verb uses.  --json is for every verb: results,
// if there are any, are JSON.
enum Use : unsigned int {
  kNoOption = 0,
  kTimeout = 1,
  kDump = 2,
  kFields = 4,
  kSecrets = 8,
  kEveryOption = 15
};

struct Words {
  std::string path;
  std::string fields;
  std::vector<std::string> rest;  // [CMD] [field=value ...]
  std::optional<unsigned int> id;
  double timeoutSeconds = 5;
};

class Parser {
 public:
  Parser() : app_("Sends requests to the services of this machine.", "klctl") {
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.set_version_flag("--version", "klctl " KLCTL_VERSION);
    addOptions();
    addServices();
    addRequests();
    addActions();
    addVerb(app_, Verb::kReload, "reload", "Make the loader read its configuration anew", kEveryOption);
    addVerb(app_, Verb::kRequests, "requests", "List the requests that are not answered yet",
            kTimeout | kFields);
    addVerb(app_, Verb::kStuck, "stuck", "Name who does not answer, and what it does instead",
            kTimeout | kFields, &Parser::interpretStuck);
    addGraph();
    addTop();
    addTrace();
    addVerb(app_, Verb::kMetrics, "metrics", "Print the figures of the bus as OpenMetrics text", kTimeout,
            &Parser::interpretMetrics);
    addCapture();
    addCrashes();
    addDump();
    addUndo();
    addStore();
    addLog();
    addRights();
    addHelp();
    addIntrospect();
    addNew();
    addComplete();
  }

  Place placeBehind(const std::vector<std::string>& words) const {
    Place place;
    const CLI::App* verb = &app_;
    const CLI::Option* valued = nullptr;  // the option whose value the next word is
    for (const std::string& word : words) {
      if (valued != nullptr) {
        valued = nullptr;
      } else if (word.starts_with('-')) {
        const CLI::Option* const option = optionOf(*verb, word);
        if (option != nullptr && option->get_items_expected_max() > 0) valued = option;
      } else if (const CLI::App* const chosen = place.arguments.empty() ? verbOf(*verb, word) : nullptr) {
        verb = chosen;
        place.verb += (place.verb.empty() ? "" : " ") + word;
      } else {
        place.arguments.push_back(word);
      }
    }
    if (valued != nullptr) place.argument = valued->get_name();
    else describe(*verb, place);
    return place;
  }

  std::variant<CommandLine, std::string> parse(int argc, const char* const* argv) {
    try {
      app_.parse(argc, argv);
      interpret();
    } catch (const CLI::CallForVersion&) {
      return app_.version() + "\n";
    } catch (const CLI::Success&) {  // --help
      return app_.help();
    } catch (const CLI::ParseError& error) {
      refuseUnknownCommand(app_);
      throw usage(std::string(error.what()) + " (klctl --help shows what there is)");
    }
    return line_;
  }

 private:
  void addOptions() {
    options_[kTimeout] =
        app_.add_option("--timeout", words_.timeoutSeconds, "How long to wait for each reply (default 5)");
    options_[kTimeout]->type_name("SECONDS");
    json_ = app_.add_flag("--json", line_.json, "Print JSON");
    options_[kDump] = app_.add_flag("--dump", line_.dump, "Print replies field by field, as they came");
    options_[kDump]->excludes(json_);
    options_[kFields] =
        app_.add_option("--fields", words_.fields, "A folder of dictionaries, which count first");
    options_[kFields]->type_name("DIR");
    options_[kSecrets] = app_.add_flag("--secrets", line_.secrets, "Show the values of secret fields");
    app_.footer(
        "Exit status: 0 done, 1 error reply or damage, 2 usage, 3 time-out, 4 no loader, 5 refused to "
        "leave, 6 cannot be told.\n"
        "See klctl(1).");
  }

  // Also those in front of the verb, which may stand behind it.
  static const CLI::Option* optionOf(const CLI::App& verb, const std::string& word) {
    for (const CLI::App* app = &verb; app != nullptr; app = app->get_parent())
      if (const CLI::Option* const option = app->get_option_no_throw(word)) return option;
    return nullptr;
  }

  static const CLI::App* verbOf(const CLI::App& parent, const std::string& word) {
    for (const CLI::App* verb : parent.get_subcommands(nullptr))
      if (verb->get_name() == word) return verb;
    return nullptr;
  }

  // The verbs, the options and the argument that may follow now.
  static void describe(const CLI::App& verb, Place& place) {
    if (place.arguments.empty())
      for (const CLI::App* below : verb.get_subcommands(nullptr))
        if (!below->get_group().empty()) place.verbs.push_back({below->get_name(), below->get_description()});
    std::vector<const CLI::Option*> positionals;
    for (const CLI::App* app = &verb; app != nullptr; app = app->get_parent())
      for (const CLI::Option* option : app->get_options()) {
        if (!option->get_positional())
          place.options.push_back({option->get_name(), option->get_description()});
        else if (app == &verb) positionals.push_back(option);
      }
    if (positionals.empty()) return;
    const std::size_t last = positionals.size() - 1;
    const bool isWithin = place.arguments.size() <= last;
    if (isWithin || positionals[last]->get_items_expected_max() > 1)
      place.argument = positionals[std::min(place.arguments.size(), last)]->get_name();
  }

  // Names the word that stands where a command belongs; CLI11 only reports that a command is missing.
  void refuseUnknownCommand(const CLI::App& app) const {
    const std::vector<CLI::App*> chosen = app.get_subcommands();
    if (!chosen.empty()) return refuseUnknownCommand(*chosen.front());
    const std::vector<std::string> words = app_.remaining(true);
    if (app.get_require_subcommand_min() == 0 || words.empty() || words.front().starts_with('-')) return;
    const std::string parent = &app == &app_ ? "" : app.get_name() + " ";
    std::vector<std::string> names;
    for (const CLI::App* verb : app.get_subcommands(nullptr)) names.push_back(verb->get_name());
    throw usage("there is no 'klctl " + parent + words.front() + "'" + didYouMean(words.front(), names) +
                " (klctl " + parent + "--help shows what there is)");
  }

  using Interpretation = void (Parser::*)();

  CLI::App* addVerb(CLI::App& parent, Verb verb, const char* name, const char* about, unsigned int uses,
                    Interpretation interpretation = nullptr) {
    CLI::App* verbApp = parent.add_subcommand(name, about);
    const std::string fullName = &parent == &app_ ? name : parent.get_name() + " " + name;
    verbApp->final_callback([this, verb, fullName, uses, interpretation] {
      line_.verb = verb;
      refuseUnusedOptions(fullName, uses);
      interpretation_ = interpretation;
    });
    return verbApp;
  }

  CLI::App* addRequest(Verb verb, const char* name, const char* about,
                       Interpretation interpretation = &Parser::interpretRequest) {
    CLI::App* verbApp = addVerb(app_, verb, name, about, kEveryOption, interpretation);
    verbApp->add_option("PATH", words_.path, "A service, as netif, 24, netif/3 or netif:2 (object 2)")
        ->required()
        ->type_name("");
    verbApp->add_option("words", words_.rest, "[CMD] [field=value ...]")->type_name("");
    verbApp
        ->add_option_function<std::string>(
            "--id", [this](const std::string& text) { readId("--id", text); }, "The object, as in PATH:ID")
        ->type_name("ID");
    return verbApp;
  }

  void addServices() {
    addVerb(app_, Verb::kServices, "services", "List the services", kEveryOption)
        ->add_flag("--subscriptions", line_.subscriptions, "List who has subscribed where instead")
        ->excludes(options_[kDump]);
  }

  void addGraph() {
    CLI::App* graph =
        addVerb(app_, Verb::kGraph, "graph", "Show who talks to whom, and how much", kTimeout | kFields);
    const auto addFormat = [&](const char* option, GraphFormat format, const char* about) {
      return graph
          ->add_flag_callback(
              option, [this, format] { line_.graph = format; }, about)
          ->excludes(json_);
    };
    CLI::Option* dot = addFormat("--dot", GraphFormat::kDot, "For the programs of Graphviz");
    addFormat("--svg", GraphFormat::kSvg, "As a picture")->excludes(dot);
  }

  void addRequests() {
    addRequest(Verb::kGet, "get", "Read settings, or one object");
    addRequest(Verb::kGetAll, "getall", "Read a whole table of objects");
    addRequest(Verb::kWatch, "watch", "Show a table of objects and every change of it",
               &Parser::interpretTable);
    addRequest(Verb::kSet, "set", "Change settings, or one object");
    CLI::App* send = addRequest(Verb::kSend, "send", "Send any command (CMD_NOOP if none is given)");
    send->add_flag("--no-reply", line_.noReply, "Do not ask for a reply")
        ->excludes(json_)
        ->excludes(options_[kDump]);
  }

  void addActions() {
    addAction(Verb::kStart, "start", "Start a service");
    addAction(Verb::kStop, "stop", "End a service");
    addAction(Verb::kRestart, "restart", "End a service and start it again");
    addAction(Verb::kLeave, "leave", "Ask a service to save its state and end, and wait for that");
  }

  void addAction(Verb verb, const char* name, const char* about) {
    addVerb(app_, verb, name, about, kTimeout | kDump, &Parser::interpretService)
        ->add_option("SERVICE", words_.path, "A service, by its name or its number")
        ->required()
        ->type_name("");
  }

  void addTop() {
    CLI::App* top =
        addVerb(app_, Verb::kTop, "top", "Show what the services do, again and again", kTimeout | kFields);
    top->add_option("-n,--count", line_.top.count, "End after so many tables")
        ->type_name("COUNT")
        ->check(CLI::Range(1u, kMostTables));
    top->add_option_function<std::string>(
           "--interval", [this](const std::string& word) { readInterval(word); },
           "The time between two tables (default 2s)")
        ->type_name("TIME");
    top->add_option_function<std::string>(
           "--sort", [this](const std::string& word) { readOrder(word); },
           "What the lines are sorted by (default id)")
        ->type_name("COLUMN");
  }

  void addTrace() {
    addTapWords(addVerb(app_, Verb::kTrace, "trace", "Show the messages that pass", kTimeout | kFields));
  }

  void addCapture() {
    CLI::App* capture = addVerb(app_, Verb::kCapture, "capture", "Keep the messages that pass, for Wireshark",
                                kTimeout | kFields);
    capture->add_option("-o,--output", line_.file, "The file, a new one; - is the standard output")
        ->required()
        ->type_name("FILE");
    addTapWords(capture);
    CLI::Option* bytes =
        capture->add_option("-s,--bytes", line_.captureBytes, "Only the first bytes of each message");
    bytes->type_name("COUNT")->check(CLI::Range(1u, kMostCaptured))->default_val(kMostCaptured);
    capture
        ->add_flag_callback(
            "--headers", [this] { line_.captureBytes = 0; },
            "Nothing of what is in the messages, but what trace shows of each")
        ->excludes(bytes);
  }

  // The words that say which messages, and how many.
  void addTapWords(CLI::App* verb) {
    verb->add_option("SERVICE", line_.trace.service, "Only those from or to this service")->type_name("");
    verb->add_option("PEER", line_.trace.peer, "Only those between it and this one")->type_name("");
    verb->add_option("--command", line_.trace.command, "Only those with this command, and replies to them")
        ->type_name("CMD");
    verb->add_flag("--errors", line_.trace.errorsOnly, "Only errors");
    verb->add_option_function<std::string>(
            "--slow",
            [this](const std::string& word) {
              line_.trace.slowMs = static_cast<unsigned int>(millisecondsOf("--slow", word, 1, "1ms"));
            },
            "Only replies that took as long: 10ms, 2s")
        ->type_name("TIME");
    verb->add_option("-n,--count", line_.trace.count, "End after so many messages")->type_name("COUNT");
  }

  void addCrashes() {
    CLI::App* crashes = app_.add_subcommand("crashes", "Show the crashes of services");
    crashes->require_subcommand(0, 1);
    crashes->final_callback([this, crashes] {
      if (!crashes->get_subcommands().empty()) return;
      line_.verb = Verb::kCrashList;
      refuseUnusedOptions("crashes", kEveryOption);
    });
    addVerb(*crashes, Verb::kCrashList, "list", "List the crashes, the latest first", kEveryOption);
    addRecordId(addVerb(*crashes, Verb::kCrashShow, "show", "Show one crash with its stack", kEveryOption),
                "The crash");
  }

  void addDump() {
    CLI::App* dump = addVerb(app_, Verb::kDump, "dump", "Print the messages in a file", kNoOption);
    dump->add_option("FILE", line_.file, "The file; - is the standard input")->required()->type_name("");
    dump->add_option_function<std::string>(
            "--format", [this](const std::string& word) { readFormat(word); },
            "The format of the file, if the guess is wrong")
        ->type_name("bare|framed|store");
  }

  void addUndo() {
    CLI::App* undo = app_.add_subcommand("undo", "Show what was changed, and undo it");
    undo->require_subcommand(1);
    addVerb(*undo, Verb::kUndoList, "list", "List the changes, the newest first", kEveryOption);
    addRecordId(addVerb(*undo, Verb::kUndoShow, "show", "Show one change with its messages", kEveryOption));
    addRecordId(addVerb(*undo, Verb::kUndoRun, "run", "Undo a change, or redo it", kEveryOption));
  }

  void addStore() {
    CLI::App* store = app_.add_subcommand("store", "Look into the files of a store");
    store->require_subcommand(1);
    addStoreVerb(*store, Verb::kStoreList, "ls", "List the entries and the free slots", kNoOption);
    addRecordId(addStoreVerb(*store, Verb::kStoreGet, "get", "Print the message of one entry", kDump),
                "The entry");
    addStoreVerb(*store, Verb::kStoreCheck, "check", "Print the faults of the files", kNoOption);
    addStoreVerb(*store, Verb::kStoreCompact, "compact", "Remove the free slots; changes the files",
                 kNoOption);
  }

  CLI::App* addStoreVerb(CLI::App& store, Verb verb, const char* name, const char* about, unsigned int uses) {
    CLI::App* verbApp = addVerb(store, verb, name, about, uses);
    verbApp->add_option("PATH", line_.file, "The store: its files are PATH.idx and PATH.dat")
        ->required()
        ->type_name("");
    return verbApp;
  }

  void addLog() {
    CLI::App* log = app_.add_subcommand("log", "Show the log of the system");
    CLI::Option* follow = log->add_flag("-f,--follow")->description("Follow the log");
    log->add_option("--topic", line_.log.topics, "Only lines with this topic, or one of several")
        ->type_name("TOPIC")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    log->add_option_function<std::string>(
           "--since", [this](const std::string& word) { readSince(word); },
           "Only lines from then on: 10m, 06:30, \"2026-11-21 06:30\"")
        ->type_name("WHEN");
    log->add_option("--service", line_.log.service, "Only lines of this service and of the loader about it")
        ->type_name("SERVICE");
    log->add_option("--level", line_.log.level, "Only lines at least as severe: error, warning, notice ...")
        ->type_name("LEVEL");
    log->add_option("--grep", line_.log.grep, "Only lines that match this pattern (as of grep -E)")
        ->type_name("PATTERN");
    log->add_option("-n,--lines", line_.log.last,
                    "Only so many lines, the newest; with -f those in front of new ones")
        ->type_name("COUNT");
    log->require_subcommand(0, 1);
    log->final_callback([this, log, follow] {
      if (!log->get_subcommands().empty()) return refuseFilter(*log);
      line_.verb = follow->count() > 0 ? Verb::kLogFollow : Verb::kLog;
      refuseUnusedOptions("log", kTimeout | kFields);
    });
    addTopic(addVerb(*log, Verb::kLogMute, "mute", "Mute every source with a topic", kTimeout));
    addTopic(addVerb(*log, Verb::kLogUnmute, "unmute", "Unmute them", kTimeout));
  }

  void addRights() {
    CLI::App* rights = app_.add_subcommand("rights", "Show who may do what");
    rights->require_subcommand(1);
    CLI::App* explain =
        addVerb(*rights, Verb::kRightsExplain, "explain", "Say whether a user may send a command, and why",
                kEveryOption, &Parser::interpretQuestion);
    explain->add_option("USER", line_.user, "The name of the user")->required()->type_name("");
    explain->add_option("PATH", words_.path, "A service or a handler, as netif or netif/3")
        ->required()
        ->type_name("");
    explain->add_option("CMD", words_.rest, "The command; without one, whether anything is let through")
        ->expected(0, 1)
        ->type_name("");
    explain
        ->add_option("--sender", line_.sender,
                     "The requests are those of this service, which runs as the user")
        ->type_name("SERVICE");
    CLI::App* list = addVerb(*rights, Verb::kRightsList, "list", "List the entries of the configuration",
                             kEveryOption, &Parser::interpretListed);
    list->add_option("SERVICE", words_.path, "Only those for requests to this service")->type_name("");
  }

  void addHelp() {
    CLI::App* help = addVerb(app_, Verb::kHelp, "help", "Show what a service describes", kTimeout | kFields,
                             &Parser::interpretHelp);
    help->add_option("PATH", words_.path, "A service or an object of it, as netif or netif/interface")
        ->type_name("");
  }

  void addIntrospect() {
    addVerb(app_, Verb::kIntrospect, "introspect", "Ask a service what it says of itself", kTimeout | kFields,
            &Parser::interpretService)
        ->add_option("SERVICE", words_.path, "A service, by its name or its number")
        ->required()
        ->type_name("");
  }

  void addNew() {
    addVerb(app_, Verb::kNew, "new", "Make the beginning of a service in a folder of its name", kNoOption)
        ->add_option("NAME", line_.file, "The name of the service")
        ->required()
        ->type_name("");
  }

  // For the completions of the shells, which are patient for a moment only.
  void addComplete() {
    addVerb(app_, Verb::kComplete, "complete", "Say what may stand behind some words of klctl", kFields,
            &Parser::interpretUnfinished)
        ->group("")
        ->add_option("WORDS", line_.unfinished, "The words, the last of them unfinished")
        ->type_name("");
  }

  void interpretUnfinished() { line_.timeout = kMoment; }

  // The words of the log are given to its verbs, too, which do not use them.
  static void refuseFilter(const CLI::App& log) {
    for (const char* option : {"--follow", "--topic", "--since", "--service", "--level", "--grep", "--lines"})
      if (log.get_option(option)->count() > 0)
        throw usage("klctl log " + log.get_subcommands().front()->get_name() + " does not use " + option);
  }

  void refuseUnusedOptions(const std::string& verb, unsigned int uses) const {
    for (const auto& [use, option] : options_)
      if ((uses & use) == 0 && option->count() > 0)
        throw usage("klctl " + verb + " does not use " + option->get_name());
  }

  void addTopic(CLI::App* verbApp) {
    verbApp
        ->add_option_function<std::string>(
            "TOPIC", [this](const std::string& word) { line_.log.topics = {word}; }, "Its name or its number")
        ->required()
        ->type_name("");
  }

  void addRecordId(CLI::App* verbApp, const char* about = "The record") {
    verbApp
        ->add_option_function<std::string>(
            "ID",
            [this](const std::string& text) {
              readId("ID", text);
              line_.path.object = words_.id;
            },
            about)
        ->required()
        ->type_name("");
  }

  void readSince(const std::string& word) {
    using std::chrono::nanoseconds;
    const auto now =
        std::chrono::duration_cast<nanoseconds>(std::chrono::system_clock::now().time_since_epoch());
    line_.log.since = parseSince(word, static_cast<unsigned long long>(now.count()));
    if (!line_.log.since)
      throw usage("--since takes 10m, 06:30, \"2026-11-21 06:30\" or the like, not '" + word + "'");
  }

  static unsigned long long millisecondsOf(const char* option, const std::string& word,
                                           unsigned long long least, const char* leastText) {
    const auto time = parseQuantity(word, "ms", kLongestTimeMs);
    if (time && *time >= least) return *time;
    throw usage(std::string(option) + " takes a time from " + leastText + " to 1d, as 2s, not '" + word +
                "'");
  }

  void readInterval(const std::string& word) {
    line_.top.interval =
        std::chrono::milliseconds(millisecondsOf("--interval", word, kShortestIntervalMs, "100ms"));
  }

  void readOrder(const std::string& word) {
    const auto order = loadOrderOf(word);
    if (!order)
      throw usage("--sort takes no '" + word + "'" + didYouMean(word, loadOrderWords()) + " (klctl(1))");
    line_.top.order = *order;
  }

  void readFormat(const std::string& word) {
    if (word == "bare") line_.format = FileFormat::kBare;
    else if (word == "framed") line_.format = FileFormat::kFramed;
    else if (word == "store") line_.format = FileFormat::kStore;
    else throw usage("--format takes bare, framed or store, not '" + word + "'");
  }

  void readId(const std::string& option, const std::string& text) {
    const auto id = parseNumber(text, kl::BADID);
    if (!id) throw usage(option + " takes a number, not '" + text + "'");
    words_.id = static_cast<unsigned int>(*id);
  }

  void interpret() {
    if (!(words_.timeoutSeconds >= kShortestTimeout && words_.timeoutSeconds <= kLongestTimeout)) {
      throw usage("--timeout takes seconds, from 0.01 to 1000000");
    }
    line_.timeout = std::chrono::milliseconds(std::llround(words_.timeoutSeconds * 1000));
    line_.fields = dictionaryFolders(words_.fields);
    if (interpretation_ != nullptr) (this->*interpretation_)();
  }

  void interpretService() {
    line_.path = parsePath(words_.path);
    if (!line_.path.handlers.empty() || !line_.path.objectName.empty() || line_.path.object)
      throw usage("'" + words_.path + "' is no service: handlers and objects have no life of their own");
  }

  // A user who asks what is stuck does not want to wait for it.
  void interpretStuck() {
    if (options_[kTimeout]->count() == 0) line_.timeout = kPatienceWithTheStuck;
  }

  void interpretMetrics() {
    if (line_.json)
      throw usage("metrics has a format of its own; klctl --json getall loader has the figures");
  }

  void interpretQuestion() {
    line_.path = parsePath(words_.path);
    if (line_.path.object) throw usage("rights are those for a service or a handler, not for an object");
    interpretRest();
    if (!line_.assignments.empty()) throw usage("'" + line_.assignments.front() + "' is no command");
  }

  void interpretListed() {
    if (!words_.path.empty()) interpretService();
  }

  void interpretHelp() {
    if (words_.path.empty()) throw CLI::CallForHelp();
    line_.path = parsePath(words_.path);
    if (!line_.path.handlers.empty() || line_.path.object)
      throw usage("'" + words_.path + "' is no service and no object of one by its name");
  }

  void interpretRequest() {
    line_.path = parsePath(words_.path);
    interpretId();
    interpretRest();
  }

  void interpretTable() {
    interpretRequest();
    if (line_.command || !line_.commandName.empty() || line_.path.object)
      throw usage("watch follows a whole table: it takes no command and no object");
  }

  void interpretId() {
    if (!words_.id) return;
    if (line_.path.object) throw usage("the object is given twice, in the path and behind --id");
    line_.path.object = words_.id;
  }

  void interpretRest() {
    auto word = words_.rest.begin();
    if (word != words_.rest.end() && word->find('=') == std::string::npos) {
      line_.command = parseCommand(*word);
      if (!line_.command) line_.commandName = *word;
      ++word;
    }
    line_.assignments.assign(word, words_.rest.end());
  }

  CLI::App app_;
  std::map<unsigned int, CLI::Option*> options_;  // by Use
  CLI::Option* json_ = nullptr;
  Words words_;
  Interpretation interpretation_ = nullptr;  // of the words after the verb
  CommandLine line_;
};

}  // namespace

std::variant<CommandLine, std::string> parseCommandLine(int argc, const char* const* argv) {
  return Parser().parse(argc, argv);
}

Place placeBehind(const std::vector<std::string>& words) { return Parser().placeBehind(words); }

}  // namespace klctl
