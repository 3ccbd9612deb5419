// Each part is a set of ids, so its smallest id is its oldest record.
//
// P1  parts_ has exactly the ids of origins_, each under its two names; no part is empty

#include "parts.h"

#include <cstddef>

namespace undo {
namespace {

std::size_t countOf(const std::set<unsigned int>& ids) { return ids.size(); }

std::size_t countOf(const std::map<std::string, std::set<unsigned int>>& users) {
  std::size_t count = 0;
  for (const auto& [user, ids] : users) count += ids.size();
  return count;
}

// The entry that has most; `favoured` where it is among several.
template <class Map>
const typename Map::value_type& largest(const Map& all, const std::string& favoured) {
  auto found = all.begin();
  for (auto entry = all.begin(); entry != all.end(); ++entry) {
    const std::size_t count = countOf(entry->second);
    const std::size_t most = countOf(found->second);
    if (count > most || (count == most && entry->first == favoured)) found = entry;
  }
  return *found;
}

}  // namespace

void Parts::add(unsigned int id, const Origin& origin) {
  remove(id);
  origins_.emplace(id, origin);
  parts_[origin.reporter][origin.user].insert(id);
}

// P1
void Parts::remove(unsigned int id) {
  const auto known = origins_.find(id);
  if (known == origins_.end()) return;
  const auto part = parts_.find(known->second.reporter);
  const auto user = part->second.find(known->second.user);
  user->second.erase(id);
  if (user->second.empty()) part->second.erase(user);
  if (part->second.empty()) parts_.erase(part);
  origins_.erase(known);
}

Origin Parts::originOf(unsigned int id) const {
  const auto known = origins_.find(id);
  return known == origins_.end() ? Origin() : known->second;
}

unsigned int Parts::firstToGo(const Origin& newest) const {
  const Users& users = largest(parts_, newest.reporter).second;
  return *largest(users, newest.user).second.begin();
}

}  // namespace undo
