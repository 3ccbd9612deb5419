#pragma once
// section.h: one table of a TOML file, read key by key.

#include <toml++/toml.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "services/common/configuration_file.h"

namespace common {

// Reads TOML.  None, with a mistake, where the text is none.
std::optional<toml::table> parseToml(const std::string& text, const std::string& file, Mistakes& mistakes);

// Reads the keys of a table.  A key with a value of the wrong kind is reported where it stands and reads as its
// default; keys that were never asked for are reported by refuseOthers(), so that a misspelt key is never ignored.
//
//     Section whole(table, "", file, mistakes);
//     Section log = whole.table("log");
//     memory = log.number("memory", 65536u, 4096, 1048576);
//     log.refuseOthers();
//     whole.refuseOthers();
//
// Errors:    everything goes to the list of mistakes.
// Ownership: borrows the table and the list.
// Threads:   belongs to one thread.
// Cost:      does not matter here.
class Section {
 public:
  // `name` is what the table is called in mistakes; the file as a whole has none.
  Section(const toml::table& table, std::string name, std::string file, Mistakes& mistakes)
      : table_(table), name_(std::move(name)), file_(std::move(file)), mistakes_(mistakes) {}

  // The table under `key`; an empty one when it is missing.
  Section table(const std::string& key);
  // Each [[key]], in order; none when it is missing.  Mistakes call them by `key`, and name `what` as expected.
  std::vector<Section> tables(const std::string& key, const std::string& what);

  const toml::node* find(const std::string& key);  // null when missing
  std::vector<std::string> keys() const;

  std::string text(const std::string& key,
                   const std::string& otherwise);  // never an empty one that was written
  bool boolean(const std::string& key, bool otherwise);
  template <class Number>
  Number number(const std::string& key, Number otherwise, long long least, long long most) {
    return static_cast<Number>(numberOr(key, static_cast<long long>(otherwise), least, most));
  }
  // The number of the word among `words`; the first one is the default.
  unsigned int choice(const std::string& key, const std::vector<std::string>& words);
  // Texts; empty when missing.  Mistakes name `what` as expected.
  std::vector<std::string> texts(const std::string& key, const std::string& what);
  std::map<std::string, std::string> textTable(const std::string& key);  // empty when missing
  // Numbers and texts, both as texts; empty when missing.
  std::vector<std::string> words(const std::string& key);

  // Reports "[name] key: expected WHAT, found ..." where `node` stands.
  void expected(const toml::node& node, const std::string& key, const std::string& what);
  // The same for the value of `key`; where it is missing, for the table as a whole and without what was found.
  void expected(const std::string& key, const std::string& what);
  // Reports "[name] key: TEXT" where the value of `key` stands, or the table where it is missing; without a key
  // "[name]: TEXT".
  void mistake(const std::string& key, const std::string& text);
  void mistake(const std::string& text) { mistake("", text); }
  void refuseOthers();

  // The list of this table's mistakes, for what it refers to.
  Mistakes& mistakes() const { return mistakes_; }

  // The line in which the key stands; that of the table where it is missing.
  unsigned int lineOf(const std::string& key) const;
  // "[name] key: TEXT" in that line, for whoever wants to say something that is no mistake.
  Mistake remark(const std::string& key, const std::string& text) const {
    return {file_, lineOf(key), labelOf(key) + ": " + text};
  }

 private:
  long long numberOr(const std::string& key, long long otherwise, long long least, long long most);
  std::string labelOf(const std::string& key) const;

  const toml::table& table_;
  std::string name_;
  std::string file_;
  Mistakes& mistakes_;
  std::set<std::string> known_;
};

}  // namespace common
