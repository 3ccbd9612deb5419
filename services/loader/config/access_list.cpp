// TOML gives the keys of a table in the order of their letters, so the places of the values bring back that of the
// lines.

#include "config/access_list.h"

#include <algorithm>
#include <optional>
#include <set>

namespace loader {
namespace {

using common::Section;
using Kind = AccessEntry::Kind;

constexpr char kRightsExpected[] =
    "\"none\", \"all\", \"read\", \"change\", \"control\", \"contents\", a list of rights, or a number of "
    "policy "
    "bits";

bool addRight(const std::string& word, Rights& rights) {
  if (word == "all") rights = Rights::everything();
  else if (word == "read") rights.bits |= kl::RIGHT_READ;
  else if (word == "change") rights.bits |= kl::RIGHT_CHANGE;
  else if (word == "control") rights.bits |= kl::RIGHT_CONTROL;
  else if (word == "contents") rights.bits |= kl::RIGHT_CONTENTS;
  else return false;
  return true;
}

bool addRights(const toml::array& words, Rights& rights) {
  return std::all_of(words.begin(), words.end(), [&](const toml::node& node) {
    const auto word = node.value_exact<std::string>();
    return word && addRight(*word, rights);
  });
}

std::optional<Rights> rightsIn(const toml::node& node) {
  Rights rights = Rights::of(0);
  if (const auto word = node.value_exact<std::string>()) {
    if (*word == "none") return Rights::nothing();
    if (addRight(*word, rights)) return rights;
  }
  if (const auto* words = node.as_array(); words != nullptr && addRights(*words, rights)) return rights;
  if (const auto bits = node.value_exact<int64_t>(); bits && *bits >= 0 && *bits <= 0xffffffff)
    return Rights::of(static_cast<unsigned int>(*bits));
  return {};
}

Kind kindOf(const std::string& key) {
  if (key == "default") return Kind::kDefault;
  return key.starts_with('@') ? Kind::kGroup : Kind::kUser;
}

std::vector<std::string> keysInOrderOfLines(Section& section) {
  std::vector<std::string> keys = section.keys();
  const auto placeOf = [&](const std::string& key) { return section.find(key)->source().begin; };
  std::stable_sort(keys.begin(), keys.end(), [&](const std::string& a, const std::string& b) {
    return std::pair(kindOf(a), placeOf(a)) < std::pair(kindOf(b), placeOf(b));
  });
  return keys;
}

// The users that a key names; none when the system does not know that name.
std::optional<std::vector<uid_t>> usersNamed(const std::string& key, Users& users) {
  if (kindOf(key) == Kind::kDefault) return std::vector<uid_t>();
  if (kindOf(key) == Kind::kGroup) return users.findGroup(key.substr(1));
  const auto uid = users.find(key);
  if (!uid) return {};
  return std::vector<uid_t>{*uid};
}

// Follows which users are decided by the entries so far.
class Decided {
 public:
  // Why the entry can never match, or null.
  const char* add(const AccessEntry& entry) {
    if (entry.kind == Kind::kDefault) return nullptr;
    if (entry.kind == Kind::kUser && entry.users[0] == 0) return "root may do everything anyway";
    if (entry.users.empty()) return "the group has no members";
    bool isNew = false;
    for (const uid_t uid : entry.users) isNew = users_.insert(uid).second || isNew;
    if (isNew) return nullptr;
    return entry.kind == Kind::kUser ? "an entry before it is for the same user"
                                     : "for each member there is an entry before it";
  }

 private:
  std::set<uid_t> users_{0};
};

}  // namespace

bool AccessEntry::covers(uid_t uid) const {
  return kind == Kind::kDefault || std::binary_search(users.begin(), users.end(), uid);
}

Rights readRights(Section& section, const std::string& key, const Rights& otherwise) {
  const toml::node* node = section.find(key);
  if (node == nullptr) return otherwise;
  if (const auto rights = rightsIn(*node)) return *rights;
  section.expected(*node, key, kRightsExpected);
  return otherwise;
}

AccessList readAccessList(Section& section, const std::string& name, Users& users,
                          common::Mistakes& warnings) {
  AccessList list{name, {}};
  Decided decided;
  for (const std::string& key : keysInOrderOfLines(section)) {
    AccessEntry entry{kindOf(key), key, section.lineOf(key), readRights(section, key, {}), {}};
    const auto named = usersNamed(key, users);
    if (named) entry.users = *named;
    const char* fault = named ? decided.add(entry) : "this system has nobody of that name";
    if (fault != nullptr) warnings.push_back(section.remark(key, std::string("never matches: ") + fault));
    if (named) list.entries.push_back(std::move(entry));
  }
  return list;
}

}  // namespace loader
