// The loader puts the user's name (SYS_USER) and its rights (SYS_POLICY) into each request of somebody who has not all
// of them, and nobody else can.  A line has the number of its user from the kernel; the two meet here.

#include "asking/viewers.h"

#include "kl/conventions.h"
#include "log.kl.h"

namespace logd {

std::optional<unsigned int> Viewers::onlyOf(const kl::message& request) const {
  if ((request.get(kl::SYS_POLICY, kl::RIGHTS_ALL) & kl::RIGHT_CONTENTS) != 0) return {};
  return userOf(request);
}

kl::message Viewers::limited(const kl::message& request) const {
  const auto uid = onlyOf(request);
  return uid ? limitedTo(request, *uid) : request;
}

unsigned int Viewers::userOf(const kl::message& request) const {
  return users_.numberOf(request.get(kl::SYS_USER, "")).value_or(kNobody);
}

kl::message limitedTo(const kl::message& request, unsigned int uid) {
  kl::message result(request);
  result.insert(log_service::UID, request.get(log_service::UID, uid) == uid ? uid : Viewers::kNobody);
  return result;
}

}  // namespace logd
