// The cheapest comparison comes first: the ends of a message with many receivers come last.

#include "watch/tap_filter.h"

#include <algorithm>

#include "routing/sub_paths.h"
#include "services/common/tap.h"

namespace loader {

Receivers::Receivers(const PassingMessage& message)
    : rest_(message.path),
      one_(rest_.empty() ? message.receiver : rest_[0]),
      kind_(!rest_.empty() && one_ == kl::PATH_MULTI ? Kind::kMany : Kind::kOne) {
  if (kind_ == Kind::kMany) rest_ = rest_.withoutFirst();
}

bool Receivers::next(unsigned int& receiver) {
  if (kind_ == Kind::kNone) return false;
  if (kind_ == Kind::kOne) {
    receiver = one_;
    kind_ = Kind::kNone;
    return true;
  }
  SubPaths walk(rest_, 0);
  Path path;
  if (!walk.next(path)) return false;
  receiver = path[0];
  rest_ = rest_.part(rest_.size() - walk.left(), walk.left());
  return true;
}

std::string TapFilter::read(const kl::message& request) {
  TapFilter filter;
  filter.services_ = request.get(common::tap::SERVICES, {});
  if (filter.services_.size() > kMostServices)
    return "a tap is for at most " + std::to_string(kMostServices) + " services";
  std::sort(filter.services_.begin(), filter.services_.end());
  if (request.has(common::tap::PEER)) filter.peer_ = request.get(common::tap::PEER, 0);
  if (request.has(common::tap::COMMAND)) filter.command_ = request.get(common::tap::COMMAND, 0);
  filter.isForErrors_ = request.get(common::tap::ERRORS, false);
  filter.slowest_ = request.get(common::tap::SLOW, 0);
  filter.contents_ = std::min(kMostContents, request.get(common::tap::BYTES, 0));
  *this = filter;
  return {};
}

bool TapFilter::matches(const PassingMessage& message) const {
  if (isForErrors_ && message.envelope.status != kl::STATUS_ERROR) return false;
  if (slowest_ != 0 && (!message.age || *message.age < slowest_)) return false;
  if (command_ && message.command != command_) return false;
  return matchesEnds(message);
}

// A message to all goes to every service that is named.
bool TapFilter::matchesEnds(const PassingMessage& message) const {
  if (services_.empty() && !peer_) return true;
  const bool isFromNamed = isNamed(message.from);
  const bool isFromPeer = !peer_ || message.from == *peer_;
  Receivers receivers(message);
  for (unsigned int to = 0; receivers.next(to);) {
    const bool isToPeer = !peer_ || to == *peer_ || to == kl::PATH_ALL;
    if (isFromNamed && isToPeer) return true;
    if (isFromPeer && (isNamed(to) || to == kl::PATH_ALL)) return true;
  }
  return false;
}

bool TapFilter::isNamed(unsigned int service) const {
  return services_.empty() || std::binary_search(services_.begin(), services_.end(), service);
}

}  // namespace loader
