#pragma once
// viewers.h: whose lines a request may show.

#include <optional>

#include "kl/message.h"
#include "services/common/known_users.h"

namespace logd {

// A request that carries all rights, or RIGHT_CONTENTS among others, sees the lines of everybody; any other those of
// the user in whose name it comes, as the loader says it, and no others.
//
//     const Viewers viewers(users);
//     const LineFilter filter(viewers.limited(request));
//
// Errors:    who has no number sees no line.
// Ownership: borrows the users.
// Threads:   belongs to one thread.
// Cost:      a look into a map; the system is never asked.
class Viewers {
 public:
  static constexpr unsigned int kNobody = 0xffffffff;  // the number that no user has

  explicit Viewers(const common::KnownUsers& users) : users_(users) {}

  // The user whose lines alone the request sees; nothing: those of everybody.
  std::optional<unsigned int> onlyOf(const kl::message& request) const;
  // The request with that user's lines as a condition of its filter.
  kl::message limited(const kl::message& request) const;

  // The user in whose name the request comes, or kNobody.
  unsigned int userOf(const kl::message& request) const;

 private:
  const common::KnownUsers& users_;
};

// The request with LOG_UID as a condition; one that asks for the lines of somebody else gets none.
kl::message limitedTo(const kl::message& request, unsigned int uid);

}  // namespace logd
