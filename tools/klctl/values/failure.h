#pragma once
// failure.h: the one way in which a run of klctl ends early.

#include <stdexcept>
#include <string>

namespace klctl {

// The exit statuses, as the man page promises them.
enum class Status {
  kDone = 0,
  kRefused = 1,  // an error reply, a name that no service has, results that could not be written
  kUsage = 2,
  kTimeout = 3,
  kNoLoader = 4,
  kStays = 5,      // a service refused to leave
  kUndecided = 6,  // what a user may do cannot be told
};

// Thrown wherever something stands in the way, caught once in main.  what() is a sentence for the user.
class Failure : public std::runtime_error {
 public:
  Failure(Status status, const std::string& sentence) : std::runtime_error(sentence), status_(status) {}
  Status status() const { return status_; }

 private:
  Status status_;
};

// The commonest: the user wrote something that cannot be meant.
inline Failure usage(const std::string& sentence) { return {Status::kUsage, sentence}; }

}  // namespace klctl
