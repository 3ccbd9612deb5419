// The grammar says what kind of word belongs to the place; here its kind finds the words.

#include "verbs/complete.h"

#include <pwd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <optional>
#include <set>

#include "ask/path.h"
#include "kl/conventions.h"
#include "kl/services.h"
#include "services/common/text.h"
#include "services/describe/words.h"
#include "values/dictionary.h"
#include "values/failure.h"
#include "verbs/log.h"

namespace klctl {
namespace {

using describe::Object;
using Words = std::vector<Place::Word>;

constexpr char kFiles[] = ":files\n";
constexpr std::size_t kMostAbout = 100;

bool isPlain(const std::string& word) {
  return !word.empty() && std::all_of(word.begin(), word.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || (c != 0 && std::strchr("_-./:=+@", c) != nullptr);
  });
}

std::string lineOf(const Place::Word& candidate) {
  std::string about = common::printable(candidate.about).substr(0, kMostAbout);
  return candidate.word + (about.empty() ? "" : "\t" + about) + "\n";
}

// The words for one place of one command line.
class Candidates {
 public:
  Candidates(const CommandLine& line, const Channels& channels, const Place& place, const std::string& last)
      : line_(line), channels_(channels), place_(place), last_(last) {}

  // Nothing where files may stand.
  std::optional<Words> all() {
    if (last_.starts_with('-') && !place_.options.empty()) return place_.options;
    words_ = place_.verbs;
    return addArgument() ? std::optional(words_) : std::nullopt;
  }

 private:
  bool addArgument() {
    const std::string& argument = place_.argument;
    if (argument == "FILE" || argument == "--fields" || argument == "--output" ||
        place_.verb.starts_with("store "))
      return false;
    if (argument == "SERVICE" || argument == "PEER" || argument == "--sender" || argument == "--service")
      addServices();
    else if (argument == "PATH") addPaths();
    else if (argument == "words") addRest();
    else if (argument == "CMD") addCommands(place_.arguments.back());
    else if (argument == "--command") addCommands(place_.arguments.empty() ? "" : place_.arguments.front());
    else if (argument == "TOPIC" || argument == "--topic") addTopics();
    else if (argument == "--level") addLevels();
    else if (argument == "USER") addUsers();
    else if (argument == "--sort") addOrders();
    else if (argument == "--format") words_ = {{"bare", ""}, {"framed", ""}, {"store", ""}};
    return true;
  }

  void add(const std::string& word, const std::string& about) { words_.push_back({word, about}); }

  // A description that cannot be read has no names.
  Dictionary dictionary(const std::string& service) const {
    try {
      return dictionaryOf(service, line_.fields);
    } catch (const Failure&) {
      return {};
    }
  }

  void addOrders() {
    for (const std::string& word : loadOrderWords()) add(word, "");
  }

  void addServices() {
    std::vector<std::string> names = describedServices(line_.fields);
    for (const std::string& name : runningServices()) names.push_back(name);
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    for (const std::string& name : names) {
      const auto description = dictionary(name).description;
      add(name, description ? description->title : "");
    }
  }

  // Those that the loader lists, if it does so at once.
  std::vector<std::string> runningServices() const {
    std::vector<std::string> names;
    try {
      kl::message request;
      request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
      request.insert(kl::SYS_CMD, kl::CMD_GETALL);
      for (const kl::message service : fetchAll(request, "loader", channels_.exchange))
        names.push_back(service.get(kl::SVC_NAME, ""));
    } catch (const Failure&) {
      // The names on the disk are enough.
    }
    return names;
  }

  void addPaths() {
    const std::size_t slash = last_.find('/');
    if (slash == std::string::npos) return addServices();
    const std::string service = last_.substr(0, slash);
    const auto description = dictionary(service).description;
    if (!description) return;
    for (const Object& object : description->objects)
      add(std::string(service).append("/").append(object.name), object.doc);
  }

  // [CMD] [field=value ...]
  void addRest() {
    const std::string& path = place_.arguments.front();
    if (const std::size_t equals = last_.find('='); equals != std::string::npos)
      return addValues(path, last_.substr(0, equals));
    addFields(path);
    if (place_.arguments.size() == 1 && place_.verb != "watch") addCommands(path);
  }

  // The service of a path, and the object that it names.
  struct Named {
    Dictionary dictionary;
    const Object* object = nullptr;  // null: its fields are unknown
  };
  Named named(const std::string& word) const {
    Named found;
    try {
      const NamedPath path = parsePath(word);
      found.dictionary = dictionary(path.service);
      if (!found.dictionary.description) return found;
      for (const Object& object : found.dictionary.description->objects)
        if (path.objectName.empty() ? !object.handler : object.name == path.objectName)
          found.object = &object;
    } catch (const Failure&) {
      // A word that is no path has no names.
    }
    return found;
  }

  void addFields(const std::string& path) {
    const Named of = named(path);
    if (!of.dictionary.description) return;
    for (const describe::Field& field : of.dictionary.description->fields) {
      const auto& shown = of.object == nullptr ? std::vector<std::string>{} : of.object->fields;
      if (of.object == nullptr || std::find(shown.begin(), shown.end(), field.name) != shown.end())
        add(field.name + "=", field.doc);
    }
  }

  void addValues(const std::string& path, const std::string& field) {
    const Named of = named(path);
    const auto id = of.dictionary.names.find(field);
    if (!id) return;
    const std::string begin = field + "=";
    for (const std::string& word : of.dictionary.names.valueWords(*id)) add(begin + word, "");
  }

  // Those of the object, or else those that everybody may have.
  void addCommands(const std::string& path) {
    const Named of = named(path);
    if (of.object != nullptr && !of.object->commands.empty()) {
      for (const describe::Command& command : of.object->commands) add(command.name, command.doc);
    } else {
      for (const auto& command : describe::standardCommands()) add(describe::shortForm(command.name), "");
    }
  }

  void addLevels() {
    for (const char* level :
         {"emergency", "alert", "critical", "error", "warning", "notice", "info", "debug"})
      add(level, "");
  }

  void addTopics() {
    for (const std::string& service : describedServices(line_.fields)) {
      const auto description = dictionary(service).description;
      if (!description) continue;
      for (const describe::Topic& topic : description->topics) add(topic.name, topic.doc);
    }
    try {
      for (const std::string& name : LogTopics(channels_.exchange).names()) add(name, "");
    } catch (const Failure&) {
      // The log service does not answer at once.
    }
  }

  void addUsers() {
    ::setpwent();
    while (const passwd* const user = ::getpwent()) add(user->pw_name, user->pw_gecos);
    ::endpwent();
  }

  const CommandLine& line_;
  const Channels& channels_;
  const Place& place_;
  const std::string& last_;
  Words words_;
};

}  // namespace

void completeWords(const CommandLine& line, const Channels& channels) {
  std::vector<std::string> words = line.unfinished;
  if (words.empty()) words.emplace_back();
  const std::string last = std::move(words.back());
  words.pop_back();
  const Place place = placeBehind(words);
  const auto candidates = Candidates(line, channels, place, last).all();
  if (!candidates) return channels.print(kFiles);
  std::string text;
  std::set<std::string> given;
  for (const Place::Word& candidate : *candidates) {
    const bool fits = candidate.word.starts_with(last) && isPlain(candidate.word);
    if (fits && given.insert(candidate.word).second) text += lineOf(candidate);
  }
  channels.print(text);
}

}  // namespace klctl
