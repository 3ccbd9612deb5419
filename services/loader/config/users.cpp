// The lists are read as a whole, because the members of a group are also those whose primary group it is, and because
// each process that comes later is called by its user's name.

#include "config/users.h"

#include <grp.h>
#include <pwd.h>

#include <set>

namespace loader {
namespace {

constexpr std::size_t kUsualGroups = 64;

common::User userOf(const passwd& entry) { return {entry.pw_name, entry.pw_uid, entry.pw_gid, entry.pw_dir}; }

Users::Group groupOf(const group& entry) {
  Users::Group result{entry.gr_name, entry.gr_gid, {}};
  for (char** member = entry.gr_mem; *member != nullptr; ++member) result.members.emplace_back(*member);
  return result;
}

std::vector<Users::Group> groupsOfThisSystem() {
  std::vector<Users::Group> groups;
  ::setgrent();
  while (const group* entry = ::getgrent()) groups.push_back(groupOf(*entry));
  ::endgrent();
  return groups;
}

}  // namespace

Users::Users() { addGroups(groupsOfThisSystem()); }

Users::Users(const std::vector<User>& users, const std::vector<Group>& groups) : users_(users) {
  addGroups(groups);
}

std::optional<uid_t> Users::find(const std::string& name) {
  if (common::isNumber(name)) return {};
  if (users_.find(name) == nullptr)
    if (const passwd* entry = ::getpwnam(name.c_str())) users_.add(userOf(*entry));
  const User* user = users_.find(name);
  if (user == nullptr) return {};
  return user->uid;
}

// One that the system knows but does not list is asked for, and kept.
const Users::Group* Users::groupNamed(const std::string& name) {
  if (common::isNumber(name)) return nullptr;
  if (!groups_.contains(name))
    if (const group* entry = ::getgrnam(name.c_str())) groups_[name] = groupOf(*entry);
  const auto found = groups_.find(name);
  return found == groups_.end() ? nullptr : &found->second;
}

std::optional<gid_t> Users::findGroupId(const std::string& name) {
  const Group* const found = groupNamed(name);
  return found == nullptr ? std::nullopt : std::optional<gid_t>(found->gid);
}

std::optional<std::vector<uid_t>> Users::findGroup(const std::string& name) {
  const Group* const found = groupNamed(name);
  if (found == nullptr) return {};
  const std::vector<std::string> members = found->members;
  std::set<uid_t> uids;
  for (const std::string& member : members)
    if (const auto uid = find(member)) uids.insert(*uid);
  for (const auto& [user, about] : users_.byName())
    if (about.group == found->gid) uids.insert(about.uid);
  return std::vector<uid_t>(uids.begin(), uids.end());
}

std::string Users::homeOf(const std::string& name) const {
  const User* user = users_.find(name);
  return user == nullptr || user->home.empty() ? "/" : user->home;
}

std::vector<gid_t> Users::groupsOf(const std::string& name) const {
  const User* user = users_.find(name);
  if (user == nullptr) return {};
  std::vector<gid_t> groups(kUsualGroups);
  int count = static_cast<int>(groups.size());
  if (::getgrouplist(name.c_str(), user->group, groups.data(), &count) < 0) {
    groups.resize(static_cast<std::size_t>(count));  // so many there are
    (void)::getgrouplist(name.c_str(), user->group, groups.data(), &count);
  }
  groups.resize(static_cast<std::size_t>(count));
  return groups;
}

void Users::addGroups(const std::vector<Group>& groups) {
  for (const Group& group : groups)
    if (!common::isNumber(group.name)) groups_.try_emplace(group.name, group);
}

}  // namespace loader
