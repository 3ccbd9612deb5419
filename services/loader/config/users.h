#pragma once
// users.h: the users and groups of this system.

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "services/common/known_users.h"

namespace loader {

// Users and groups as the system lists them when the configuration is read; nothing asks the system for names later.
// A number is never a name: who is listed under one is called by his own number.
//
// Errors:    a user without a name is called by his number.
// Ownership: owns the names.
// Threads:   belongs to one thread.
// Cost:      each is made by reading the system's lists; nameOf() looks into a map.
class Users {
 public:
  using User = common::User;
  struct Group {
    std::string name;
    gid_t gid = 0;
    std::vector<std::string> members;  // beside those whose primary group it is
  };

  Users();  // those of this system
  Users(const std::vector<User>& users, const std::vector<Group>& groups);

  std::string nameOf(uid_t uid) const { return users_.nameOf(uid); }
  // The number of who is called so; of one without a name that is the number itself.
  std::optional<uid_t> known(const std::string& name) const { return users_.numberOf(name); }

  // The number of a user.  One whom the system knows but does not list is asked for by his name, and kept.
  std::optional<uid_t> find(const std::string& name);
  // Where the files of this user are; the root folder where the system names none.
  std::string homeOf(const std::string& name) const;
  // The groups that a process of this user is in, his primary one first; none when he has not been found.
  std::vector<gid_t> groupsOf(const std::string& name) const;
  // The number of a group.
  std::optional<gid_t> findGroupId(const std::string& name);
  // The numbers of a group's members, in order and each once.
  std::optional<std::vector<uid_t>> findGroup(const std::string& name);

 private:
  void addGroups(const std::vector<Group>& groups);
  const Group* groupNamed(const std::string& name);

  common::KnownUsers users_;
  std::map<std::string, Group> groups_;
};

}  // namespace loader
