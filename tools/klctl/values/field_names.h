#pragma once
// field_names.h: what the fields of messages are called, and in which order they are shown.

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace klctl {

// A two-way table of names and ids.  It knows the system's fields (SYS_USER) and the standard ones (by
// the constant's name, STD_DESCR, or in short, descr); a dictionary adds those of one service:
//
//     names.add("mtu", *parseFieldId("u32:4"));
//     names.find("mtu");             // 0x08000004
//     names.find("u32:4");           // the same
//     names.nameOf(0x08000009);      // "u32:9", since it has no name
//
// It also knows the words for values, the units of numbers, and which fields are secret.
//
// Errors:    a word that means nothing gives nothing.
// Ownership: a value.
// Threads:   as any value.
// Cost:      logarithmic in the number of names.
class FieldNames {
 public:
  FieldNames();

  // Added names come before the built-in ones, in finding and in showing, in the order of adding.
  void add(const std::string& name, unsigned int id);

  // The number `value` of this field is called `word`: { state 4 } reads "running".
  void addValue(unsigned int id, const std::string& word, unsigned int value);

  // The unit of a field's numbers.
  void setUnit(unsigned int id, const std::string& unit) { units_[id] = unit; }

  // The field is not shown unless the secrets are.
  void setSecret(unsigned int id) { secrets_.insert(id); }

  // The part of secret fields that is shown: nothing at first.
  enum class Secrets { kLeftOut, kMarked, kShown };
  void showSecrets(Secrets how) { showsSecrets_ = how; }

  // The id of a name or of an explicit form (field_id.h).
  std::optional<unsigned int> find(const std::string& word) const;

  // The word that find reads back as the same id.
  std::string nameOf(unsigned int id) const;

  // The word for a value of a u32 field and the value for a word; nothing where there is none.
  std::optional<std::string> valueWord(unsigned int id, unsigned int value) const;
  std::optional<unsigned int> findValue(unsigned int id, const std::string& word) const;

  // The words for the values of a field, in the order of their numbers; none where it has none.
  std::vector<std::string> valueWords(unsigned int id) const;

  // Empty where it has none.
  std::string unitOf(unsigned int id) const;

  bool hidesSomething() const { return showsSecrets_ != Secrets::kShown && !secrets_.empty(); }

  // A secret field whose value may not be shown.  isMarked: that it is there may be shown.
  bool isHidden(unsigned int id) const { return showsSecrets_ != Secrets::kShown && secrets_.contains(id); }
  bool isMarked(unsigned int id) const { return showsSecrets_ == Secrets::kMarked && secrets_.contains(id); }

  // Every name that find knows.
  std::vector<std::string> words() const;

  // Sorts `ids` into the order of showing: a service's own, the standard and system ones, the nameless.
  void sort(std::vector<unsigned int>& ids) const;

 private:
  struct Name {
    std::string word;
    unsigned int rank;
  };

  unsigned int rankOf(unsigned int id) const;

  std::map<std::string, unsigned int> ids_;
  std::map<unsigned int, Name> names_;
  std::map<unsigned int, std::map<std::string, unsigned int>> values_;
  std::map<unsigned int, std::string> units_;
  std::set<unsigned int> secrets_;
  Secrets showsSecrets_ = Secrets::kLeftOut;
  unsigned int nextRank_ = 0;
};

// A command by its name, with CMD_ in front or in short and small (CMD_GETCOUNT, getcount), or by its number.
std::optional<unsigned int> parseCommand(const std::string& word);

// The word that parseCommand reads back as the same command: CMD_GETCOUNT, 0x60001.
std::string commandWord(unsigned int command);

}  // namespace klctl
