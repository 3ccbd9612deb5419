// The system's own lists are read once for each user.

#include "config/users.h"

#include <pwd.h>

namespace loader {

const std::string& Users::nameOf(uid_t uid) {
  const auto [place, isNew] = names_.try_emplace(uid);
  if (isNew) {
    const passwd* entry = ::getpwuid(uid);
    place->second = entry != nullptr ? entry->pw_name : std::to_string(uid);
  }
  return place->second;
}

uid_t Users::numberOf(const std::string& name) {
  const passwd* entry = ::getpwnam(name.c_str());
  return entry != nullptr ? entry->pw_uid : static_cast<uid_t>(-1);
}

}  // namespace loader
