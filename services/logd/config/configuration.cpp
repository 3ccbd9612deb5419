// The file is TOML: a table [log], and one [[file]] for each file.  Every table is read through a Section, which
// remembers what was asked for: a key that nobody asked for is a mistake, so a misspelt key is never ignored.

#include "config/configuration.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>

#include "config/section.h"

namespace logd {
namespace {

const toml::table kNoTable;

// Where the text of a file goes; false when it cannot be read.
bool readFile(const std::string& file, std::string& text) {
  std::ifstream in(file, std::ios::binary);
  text.assign(std::istreambuf_iterator<char>(in), {});
  return in.is_open() && !in.bad();
}

Mistake unreadable(const std::string& file) {
  return {file, 0, std::string("expected a file that can be read: ") + std::strerror(errno)};
}

class Reader {
 public:
  Reader(const toml::table& whole, std::string file, std::vector<Mistake>& mistakes)
      : whole_(whole, "", file, mistakes), file_(std::move(file)), mistakes_(mistakes) {}

  Configuration read() {
    readLog();
    readFiles();
    whole_.refuseOthers();
    return result_;
  }

 private:
  Section section(const toml::table& table, const std::string& name) {
    return Section(table, name, file_, mistakes_);
  }

  void readLog() {
    const toml::node* node = whole_.find("log");
    if (node != nullptr && !node->is_table()) whole_.expected(*node, "log", "a table");
    Section log = section(node != nullptr && node->is_table() ? *node->as_table() : kNoTable, "log");
    result_.memory = log.number("memory", result_.memory, 65536, 1024 * 1024 * 1024);
    result_.clients = log.number("clients", result_.clients, 1, 100000);
    result_.linesPerSecond = log.number("lines_per_second", result_.linesPerSecond, 0, 1000000);
    result_.burst = log.number("burst", result_.burst, 1, 1000000);
    result_.syslog = log.text("syslog", "");
    readNames(log);
    result_.muted = topics(log, "mute");
    log.refuseOthers();
  }

  void readNames(Section& log) {
    const std::string file = log.text("topics", KL_TOPICS_LIST);
    std::string text;
    if (readFile(file, text)) result_.names = TopicNames::parse(text, file, mistakes_);
    else if (log.find("topics") != nullptr) mistakes_.push_back(unreadable(file));
  }

  void readFiles() {
    const toml::node* node = whole_.find("file");
    if (node == nullptr) return;
    const toml::array* list = node->as_array();
    if (list == nullptr || !list->is_homogeneous(toml::node_type::table))
      return whole_.expected(*node, "file", "a table for each file, headed by [[file]]");
    std::set<std::string> paths;
    for (const toml::node& entry : *list) {
      FileRule rule = readRule(*entry.as_table());
      if (!paths.insert(rule.path).second)
        section(*entry.as_table(), "file").expected(entry, "path", "a path that no other file has");
      result_.files.push_back(std::move(rule));
    }
  }

  FileRule readRule(const toml::table& table) {
    Section file = section(table, "file");
    FileRule rule;
    rule.path = file.text("path", "");
    if (!rule.path.starts_with("/")) file.expected(table, "path", "a path that begins with /");
    rule.topics = topics(file, "topics");
    rule.mostBytes = file.number("size", 1024 * 1024, 1024, 0x7fffffff);
    rule.count = file.number("files", 5, 1, 1000);
    rule.sync = file.choice("sync", {"never", "second", "line"});
    file.refuseOthers();
    return rule;
  }

  Topics topics(Section& from, const std::string& key) {
    Topics result;
    for (const std::string& word : from.words(key)) {
      const auto topic = result_.names.find(word);
      if (topic) result.push_back(*topic);
      else from.expected(*from.find(key), key, "names and numbers of topics, which \"" + word + "\" is not");
    }
    return result;
  }

  Section whole_;
  std::string file_;
  std::vector<Mistake>& mistakes_;
  Configuration result_;
};

}  // namespace

std::string Mistake::describe() const {
  return file + (line > 0 ? ":" + std::to_string(line) : "") + ": " + text;
}

Configuration parseConfiguration(const std::string& text, const std::string& file,
                                 std::vector<Mistake>& mistakes) {
  try {
    const toml::table table = toml::parse(text, file);
    return Reader(table, file, mistakes).read();
  } catch (const toml::parse_error& error) {
    mistakes.push_back(
        {file, error.source().begin.line, "expected TOML: " + std::string(error.description())});
    return {};
  }
}

Configuration readConfiguration(const std::string& file, std::vector<Mistake>& mistakes) {
  std::string text;
  if (!readFile(file, text)) {
    mistakes.push_back(unreadable(file));
    return {};
  }
  return parseConfiguration(text, file, mistakes);
}

}  // namespace logd
