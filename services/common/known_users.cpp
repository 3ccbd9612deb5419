// The users of this system: its list is read once, with getpwent(3), and then only looked into.

#include "services/common/known_users.h"

#include <pwd.h>

#include <charconv>

namespace common {
namespace {

std::vector<User> usersOfThisSystem() {
  std::vector<User> users;
  ::setpwent();
  while (const passwd* entry = ::getpwent())
    users.push_back({entry->pw_name, entry->pw_uid, entry->pw_gid, entry->pw_dir});
  ::endpwent();
  return users;
}

}  // namespace

KnownUsers::KnownUsers() : KnownUsers(usersOfThisSystem()) {}

KnownUsers::KnownUsers(const std::vector<User>& users) {
  for (const User& user : users) add(user);
}

void KnownUsers::add(const User& user) {
  if (isNumber(user.name)) return;
  users_.try_emplace(user.name, user);
  names_.try_emplace(user.uid, user.name);
}

std::string KnownUsers::nameOf(uid_t uid) const {
  const auto found = names_.find(uid);
  return found != names_.end() ? found->second : std::to_string(uid);
}

std::optional<uid_t> KnownUsers::numberOf(const std::string& name) const {
  if (const User* user = find(name)) return user->uid;
  uid_t uid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), uid);
  if (error != std::errc() || end != name.data() + name.size() || nameOf(uid) != name) return {};
  return uid;
}

const User* KnownUsers::find(const std::string& name) const {
  const auto found = users_.find(name);
  return found != users_.end() ? &found->second : nullptr;
}

bool isNumber(const std::string& name) {
  return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace common
