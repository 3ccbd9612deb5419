// The file is TOML: a table [log], and one [[file]] for each file.  Topics may be given by name, so the list of names is
// read before any of them.

#include "config/configuration.h"

#include <set>

#include "kl/utilities.h"
#include "services/common/data_file.h"
#include "services/common/section.h"

namespace logd {
namespace {

using common::Section;

// The list that is installed with the program may be missing; one that the configuration names may not.
void readNames(Section& log, BookRules& book, common::Mistakes& mistakes) {
  const bool isNamed = log.find("topics") != nullptr;
  const std::string installed = common::findData(kl::underRoot(KL_TOPICS), KL_TOPICS_FROM_PROGRAM, KL_TOPICS);
  const std::string file = log.text("topics", installed);
  const auto text = isNamed ? common::readFile(file, mistakes) : common::readFileIfThere(file, mistakes);
  if (text) book.names = TopicNames::parse(*text, file, mistakes);
}

Topics readTopics(Section& section, const std::string& key, const TopicNames& names) {
  Topics result;
  for (const std::string& word : section.words(key)) {
    if (const auto topic = names.find(word)) result.push_back(*topic);
    else section.mistake(key, "expected names and numbers of topics, which \"" + word + "\" is not");
  }
  return result;
}

void readLog(Section& whole, Configuration& result, common::Mistakes& mistakes) {
  Section log = whole.table("log");
  Limits& limits = result.limits;
  limits.clients = log.number("clients", limits.clients, 1, 100000);
  limits.linesPerSecond = log.number("lines_per_second", limits.linesPerSecond, 0, 1000000);
  limits.burst = log.number("burst", limits.burst, 1, 1000000);
  limits.clientsPerUser = log.number("clients_per_user", limits.clientsPerUser, 1, 100000);
  limits.idleSeconds = log.number("idle_seconds", limits.idleSeconds, 0, 1000000000);
  limits.bytesPerSecond = log.number("bytes_per_second", limits.bytesPerSecond, 0, 1000000000);
  limits.bytesBurst = log.number("bytes_burst", limits.bytesBurst, 65536, 1000000000);
  BookRules& book = result.book;
  book.memory = log.number("memory", book.memory, 65536, 1024 * 1024 * 1024);
  book.syslog = log.text("syslog", "");
  readNames(log, book, mistakes);
  book.muted = readTopics(log, "mute", book.names);
  log.refuseOthers();
}

FileRule readFileRule(Section& file, const TopicNames& names) {
  FileRule rule;
  rule.path = file.text("path", "");
  if (!rule.path.starts_with("/")) file.expected("path", "a path that begins with /");
  rule.topics = readTopics(file, "topics", names);
  rule.mostBytes = file.number("size", rule.mostBytes, 1024, 0x7fffffff);
  rule.count = file.number("files", rule.count, 1, 1000);
  rule.isShared = file.boolean("shared", rule.isShared);
  rule.sync = file.choice("sync", {"never", "second", "line"});
  file.refuseOthers();
  return rule;
}

void readFiles(Section& whole, BookRules& book) {
  std::set<std::string> paths;
  for (Section& file : whole.tables("file", "a table for each file, headed by [[file]]")) {
    FileRule rule = readFileRule(file, book.names);
    if (!paths.insert(rule.path).second) file.mistake("path", "expected a path that no other file has");
    book.files.push_back(std::move(rule));
  }
}

}  // namespace

Configuration readConfiguration(const common::CommandLine& line, common::Mistakes& mistakes) {
  const auto text = line.readFile(mistakes);
  return text ? parseConfiguration(*text, line.file, mistakes) : Configuration();
}

Configuration parseConfiguration(const std::string& text, const std::string& file,
                                 common::Mistakes& mistakes) {
  const auto table = common::parseToml(text, file, mistakes);
  if (!table) return {};
  Configuration result;
  Section whole(*table, "", file, mistakes);
  readLog(whole, result, mistakes);
  readFiles(whole, result.book);
  whole.refuseOthers();
  return result;
}

}  // namespace logd
