#pragma once
// parts.h: who has how many of the records, and whose record goes when there are too many.

#include <map>
#include <set>
#include <string>

namespace undo {

// Where a record comes from, in two steps: the user whose process reported it, as the loader says, and the user whom the
// report names.  Only the first cannot be invented.
struct Origin {
  std::string reporter;
  std::string user;

  friend bool operator==(const Origin&, const Origin&) = default;
};

// The room is divided twice: among the reporters, and inside a reporter's part among the users whom it names.  A
// reporter or user with no more than an equal part loses nothing, however much the others report.
//
// Errors:    none.
// Ownership: owns its copies of the names.
// Threads:   belongs to one thread.
// Cost:      a record costs a logarithm of their number; the choice of one that goes is a walk over the users.
class Parts {
 public:
  void add(unsigned int id, const Origin& origin);
  void remove(unsigned int id);

  // The origin of a record; empty names for one that is not there.
  Origin originOf(unsigned int id) const;

  // The oldest record of the user who has most in the part of the reporter who has most.  Where several have most, it
  // is that of `newest` if it is among them.  Needs: there is a record.
  unsigned int firstToGo(const Origin& newest) const;

 private:
  using Users = std::map<std::string, std::set<unsigned int>>;

  std::map<unsigned int, Origin> origins_;
  std::map<std::string, Users> parts_;
};

}  // namespace undo
