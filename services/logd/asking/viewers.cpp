// The loader puts the user's name (SYS_USER) and its rights (SYS_POLICY) into each request of somebody who has not all
// of them, and nobody else can.  A line has the number of its user from the kernel; the two meet here.

#include "asking/viewers.h"

#include <pwd.h>

#include <charconv>

#include "kl/conventions.h"
#include "kl/services.h"

namespace logd {

std::optional<unsigned int> Viewers::onlyOf(const kl::message& request) {
  if ((request.get(kl::SYS_POLICY, kl::RIGHTS_ALL) & kl::RIGHT_CONTENTS) != 0) return {};
  return userOf(request);
}

kl::message Viewers::limited(const kl::message& request) {
  const auto uid = onlyOf(request);
  return uid ? limitedTo(request, *uid) : request;
}

unsigned int Viewers::userOf(const kl::message& request) {
  const std::string name = request.get(kl::SYS_USER, "");
  if (name.empty()) return kNobody;
  if (const auto known = numbers_.find(name); known != numbers_.end()) return known->second;
  const auto number = find_(name);
  if (!number) return kNobody;
  if (numbers_.size() >= kMostNames) numbers_.clear();
  numbers_[name] = *number;
  return *number;
}

std::optional<unsigned int> Viewers::findUser(const std::string& name) {
  unsigned int number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  const bool isNumber = error == std::errc() && end == name.data() + name.size() && number != kNobody;
  const passwd* entry = ::getpwnam(name.c_str());
  if (entry != nullptr) return isNumber ? std::nullopt : std::optional<unsigned int>(entry->pw_uid);
  return isNumber && ::getpwuid(number) == nullptr ? std::optional(number) : std::nullopt;
}

kl::message limitedTo(const kl::message& request, unsigned int uid) {
  kl::message result(request);
  result.insert(kl::LOG_UID, request.get(kl::LOG_UID, uid) == uid ? uid : Viewers::kNobody);
  return result;
}

}  // namespace logd
