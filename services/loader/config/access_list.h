#pragma once
// access_list.h: who may do what, as a table of the configuration has it.

#include <sys/types.h>

#include <string>
#include <vector>

#include "config/rights.h"
#include "config/users.h"
#include "services/common/section.h"

namespace loader {

// One line of such a table.
struct AccessEntry {
  enum class Kind : unsigned char { kUser, kGroup, kDefault };

  Kind kind = Kind::kDefault;
  std::string key;  // "bob", "@wheel" or "default"
  unsigned int line = 0;
  Rights rights;
  std::vector<uid_t> users;  // whom it names, in order; not of the default

  bool covers(uid_t uid) const;
};

// A table: users come before groups, those in the order of their lines, and both before the default.  The first entry
// that covers a user decides.
struct AccessList {
  std::string name;                  // "rights", "access of log"
  std::vector<AccessEntry> entries;  // in the order in which they are asked

  bool empty() const { return entries.empty(); }
};

// Reads rights: a word, a list of words, or a number.
Rights readRights(common::Section& section, const std::string& key, const Rights& otherwise);

// Reads each key of a table as an entry.  Names are looked up here and never again: whom nobody knows, and who can
// never match, is a warning.
AccessList readAccessList(common::Section& section, const std::string& name, Users& users,
                          common::Mistakes& warnings);

}  // namespace loader
