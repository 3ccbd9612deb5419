// The lists are read as a whole, because the members of a group are also those whose primary group it is, and because
// each process that comes later is called by its user's name.

#include "config/users.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <charconv>
#include <set>

namespace loader {
namespace {

constexpr std::size_t kUsualGroups = 64;

bool isNumber(const std::string& name) {
  return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

Users::User userOf(const passwd& entry) { return {entry.pw_name, entry.pw_uid, entry.pw_gid}; }

Users::Group groupOf(const group& entry) {
  Users::Group result{entry.gr_name, entry.gr_gid, {}};
  for (char** member = entry.gr_mem; *member != nullptr; ++member) result.members.emplace_back(*member);
  return result;
}

std::vector<Users::User> usersOfThisSystem() {
  std::vector<Users::User> users;
  ::setpwent();
  while (const passwd* entry = ::getpwent()) users.push_back(userOf(*entry));
  ::endpwent();
  return users;
}

std::vector<Users::Group> groupsOfThisSystem() {
  std::vector<Users::Group> groups;
  ::setgrent();
  while (const group* entry = ::getgrent()) groups.push_back(groupOf(*entry));
  ::endgrent();
  return groups;
}

}  // namespace

Users::Users() : Users(usersOfThisSystem(), groupsOfThisSystem()) {}

Users::Users(const std::vector<User>& users, const std::vector<Group>& groups) {
  for (const User& user : users) add(user);
  for (const Group& group : groups)
    if (!isNumber(group.name)) groups_.try_emplace(group.name, group);
}

std::string Users::nameOf(uid_t uid) const {
  const auto found = names_.find(uid);
  return found != names_.end() ? found->second : std::to_string(uid);
}

std::optional<uid_t> Users::known(const std::string& name) const {
  if (const auto found = users_.find(name); found != users_.end()) return found->second.uid;
  uid_t uid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), uid);
  if (error != std::errc() || end != name.data() + name.size() || nameOf(uid) != name) return {};
  return uid;
}

std::optional<uid_t> Users::find(const std::string& name) {
  if (isNumber(name)) return {};
  if (!users_.contains(name))
    if (const passwd* entry = ::getpwnam(name.c_str())) add(userOf(*entry));
  const auto found = users_.find(name);
  if (found == users_.end()) return {};
  return found->second.uid;
}

std::optional<std::vector<uid_t>> Users::findGroup(const std::string& name) {
  if (isNumber(name)) return {};
  if (!groups_.contains(name))
    if (const group* entry = ::getgrnam(name.c_str())) groups_[name] = groupOf(*entry);
  const auto found = groups_.find(name);
  if (found == groups_.end()) return {};
  const std::vector<std::string> members = found->second.members;
  std::set<uid_t> uids;
  for (const std::string& member : members)
    if (const auto uid = find(member)) uids.insert(*uid);
  for (const auto& [user, about] : users_)
    if (about.group == found->second.gid) uids.insert(about.uid);
  return std::vector<uid_t>(uids.begin(), uids.end());
}

std::vector<gid_t> Users::groupsOf(const std::string& name) const {
  const auto found = users_.find(name);
  if (found == users_.end()) return {};
  const gid_t primary = found->second.group;
  std::vector<gid_t> groups(kUsualGroups);
  int count = static_cast<int>(groups.size());
  if (::getgrouplist(name.c_str(), primary, groups.data(), &count) < 0) {
    groups.resize(static_cast<std::size_t>(count));  // so many there are
    (void)::getgrouplist(name.c_str(), primary, groups.data(), &count);
  }
  groups.resize(static_cast<std::size_t>(count));
  return groups;
}

void Users::add(const User& user) {
  if (isNumber(user.name)) return;
  users_.try_emplace(user.name, user);
  names_.try_emplace(user.uid, user.name);
}

}  // namespace loader
