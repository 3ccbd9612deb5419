#pragma once
// viewers.h: whose lines a request may show.

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "kl/message.h"

namespace logd {

// A request that carries all rights, or RIGHT_CONTENTS among others, sees the lines of everybody; any other those of
// the user in whose name it comes, as the loader says it, and no others.
//
//     Viewers viewers;
//     const LineFilter filter(viewers.limited(request));
//
// Errors:    who has no number sees no line.
// Ownership: a value.
// Threads:   belongs to one thread.
// Cost:      the first question about a user asks the system for its number; kMostNames of them are kept.
class Viewers {
 public:
  static constexpr std::size_t kMostNames = 256;
  static constexpr unsigned int kNobody = 0xffffffff;  // the number that no user has

  // The number of a user by its name; nothing: there is none.
  using Find = std::function<std::optional<unsigned int>(const std::string& name)>;

  explicit Viewers(Find find = findUser) : find_(std::move(find)) {}

  // The user whose lines alone the request sees; nothing: those of everybody.
  std::optional<unsigned int> onlyOf(const kl::message& request);
  // The request with that user's lines as a condition of its filter.
  kl::message limited(const kl::message& request);

  // The user in whose name the request comes, or kNobody.
  unsigned int userOf(const kl::message& request);
  // Numbers may have changed: they are asked for again.
  void forget() { numbers_.clear(); }

  // The system's answer.  The loader calls a user without a name by its number, which must not be somebody's name.
  static std::optional<unsigned int> findUser(const std::string& name);

 private:
  Find find_;
  std::map<std::string, unsigned int> numbers_;
};

// The request with LOG_UID as a condition; one that asks for the lines of somebody else gets none.
kl::message limitedTo(const kl::message& request, unsigned int uid);

}  // namespace logd
