#pragma once
// section.h: one table of the configuration file, read key by key.

#include <toml++/toml.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace loader {

struct Mistake;

// Where mistakes go, and the name of the file that they are in.
struct Mistakes {
  std::string file;
  std::vector<Mistake>& list;

  void add(const toml::node& where, const std::string& text);
};

// Reads the keys of a table.  A key with a value of the wrong kind is reported where it stands and reads as its
// default; keys that were never asked for are reported by refuseOthers().
//
// Errors:    everything goes to the list of mistakes.
// Ownership: borrows the table and the list.
// Threads:   belongs to one thread.
// Cost:      does not matter here.
class Section {
 public:
  Section(const toml::table& table, std::string name, Mistakes mistakes);

  // The table under `key`; an empty one when it is missing.
  Section table(const std::string& key);

  const toml::node* find(const std::string& key);  // null when missing
  std::vector<std::string> keys() const;

  std::string text(const std::string& key, const std::string& otherwise);
  bool boolean(const std::string& key, bool otherwise);
  long long number(const std::string& key, long long otherwise, long long least, long long most);
  std::vector<std::string> texts(const std::string& key);                // empty when missing
  std::map<std::string, std::string> textTable(const std::string& key);  // empty when missing

  // Reports "[name] key: expected ..., found ..." where `node` stands, or a mistake of the table as a whole.
  void expected(const toml::node& node, const std::string& key, const std::string& what);
  void mistake(const std::string& text);
  void refuseOthers();

  Mistakes mistakes() const { return mistakes_; }

 private:
  std::string labelOf(const std::string& key) const;

  const toml::table& table_;
  std::string name_;
  Mistakes mistakes_;
  std::set<std::string> known_;
};

// Ids that a configuration may give to a service.
bool isConfigurable(unsigned int id);

}  // namespace loader
