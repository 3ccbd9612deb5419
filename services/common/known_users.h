#pragma once
// known_users.h: the users of this system, by name and by number.

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace common {

struct User {
  std::string name;
  uid_t uid = 0;
  gid_t group = 0;        // the primary one
  std::string home = {};  // where the own files are; empty: nowhere
};

// Users as the system lists them when the configuration is read.  The system may have to ask others for its list, so
// nobody who serves others makes one later.  A number is never a name: who is listed under one is called by the own
// number.
//
// Errors:    a user without a name is called by the own number.
// Ownership: owns the names.
// Threads:   belongs to one thread; the list is read by one at a time.
// Cost:      the first constructor reads the system's whole list; everything else looks into a map.
class KnownUsers {
 public:
  KnownUsers();  // those of this system
  explicit KnownUsers(const std::vector<User>& users);

  // Of several with one name, or one number, the first counts.
  void add(const User& user);

  std::string nameOf(uid_t uid) const;
  // The number of who is called so; of one without a name that is the number itself.
  std::optional<uid_t> numberOf(const std::string& name) const;
  // Borrowed until the next add(); null: nobody is called so.
  const User* find(const std::string& name) const;
  const std::map<std::string, User>& byName() const { return users_; }

 private:
  std::map<std::string, User> users_;
  std::map<uid_t, std::string> names_;
};

// True for what cannot be a name.
bool isNumber(const std::string& name);

}  // namespace common
