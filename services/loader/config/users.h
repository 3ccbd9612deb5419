#pragma once
// users.h: the names of users.

#include <sys/types.h>

#include <map>
#include <string>

namespace loader {

// Names by number, asked of the system once each: services come and go often, users do not.
//
// Errors:    a user without a name is called by his number.
// Ownership: owns the names.
// Threads:   belongs to one thread.
// Cost:      the first question about a user reads the system's files.
class Users {
 public:
  const std::string& nameOf(uid_t uid);

  // The number of a user, or the highest one, which nobody has.
  static uid_t numberOf(const std::string& name);

 private:
  std::map<uid_t, std::string> names_;
};

}  // namespace loader
