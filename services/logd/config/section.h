#pragma once
// section.h: one table of the configuration file, read key by key.

#include <toml++/toml.h>

#include <set>
#include <string>
#include <vector>

namespace logd {

struct Mistake;

// Reads the keys of a table.  A key with a value of the wrong kind is a mistake where it stands and reads as its
// default; keys that were never asked for are reported by refuseOthers().
//
// Errors:    everything goes to the list of mistakes.
// Ownership: borrows the table and the list.
// Threads:   belongs to one thread.
// Cost:      does not matter here.
class Section {
 public:
  Section(const toml::table& table, std::string name, std::string file, std::vector<Mistake>& mistakes)
      : table_(table), name_(std::move(name)), file_(std::move(file)), mistakes_(mistakes) {}

  const toml::node* find(const std::string& key);  // null when missing

  std::string text(const std::string& key, const std::string& otherwise);
  unsigned int number(const std::string& key, unsigned int otherwise, unsigned int least, unsigned int most);
  // The number that stands for one of the words; the first is the default.
  unsigned int choice(const std::string& key, const std::vector<std::string>& words);
  // Numbers and texts, both as texts; empty when missing.
  std::vector<std::string> words(const std::string& key);

  // "[name] key: expected ..." where the node stands.
  void expected(const toml::node& node, const std::string& key, const std::string& what);
  void refuseOthers();

 private:
  std::string labelOf(const std::string& key) const;

  const toml::table& table_;
  std::string name_;
  std::string file_;
  std::vector<Mistake>& mistakes_;
  std::set<std::string> known_;
};

}  // namespace logd
