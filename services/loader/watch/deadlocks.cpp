// A circle comes into being with the request that closes it, and that one is made by a service that is asked, at a service
// that asks.  So the router's word about such requests is enough, and nothing runs while there are none.

#include "watch/deadlocks.h"

#include <algorithm>
#include <utility>

#include "config/commands.h"
#include "watch/circles.h"

namespace loader {
namespace {

// The moment so many milliseconds ago.
common::Moment before(common::Moment now, unsigned int milliseconds) {
  if (now.milliseconds >= milliseconds) return {now.seconds, now.milliseconds - milliseconds};
  return {now.seconds - 1, now.milliseconds + 1000 - milliseconds};
}

}  // namespace

Deadlocks::Deadlocks(kl::ThinRunner& runner, const ServiceTable& services, const OpenRequests& requests,
                     Probes& probes, Clock clock, Tell tell, WriteQueues writeQueues)
    : services_(services),
      requests_(requests),
      probes_(probes),
      clock_(std::move(clock)),
      tell_(std::move(tell)),
      writeQueues_(std::move(writeQueues)),
      timer_(runner, *this) {}

void Deadlocks::onChain() {
  wantsLook_ = wantsLook_ || state_ == State::kProbing;
  if (!isAtRest()) return;
  state_ = State::kSettling;
  timer_.start(pauseTicks_);
}

void Deadlocks::onAnswer(const Service& service) {
  forget(service);
  answered_.insert(service.id);
}

void Deadlocks::onTimer() {
  if (state_ == State::kProbing) judge();
  else beginLook();
  lookOn();
}

void Deadlocks::beginLook() {
  answered_.clear();
  wantsLook_ = false;
  pauseTicks_ = kSettleTicks;
}

void Deadlocks::lookOn() {
  const Circle circle =
      findCircle(services_, requests_, before(clock_(), kOldMs), [this](const Service& service) {
        const bool canAnswer = service.isConnected() && !service.isHeldFor;
        return canAnswer && !answered_.contains(service.id) && !named_.contains(service.id);  // D2, D3
      });
  if (!circle.members.empty()) return probe(circle.members);
  if (!answered_.empty()) pauseTicks_ = kRestTicks;
  state_ = State::kAtRest;
  if (circle.isTooEarly || wantsLook_) onChain();
}

void Deadlocks::probe(const std::vector<Service*>& members) {
  circle_.clear();
  unreached_.clear();
  for (Service* member : members) {
    circle_.push_back(member->id);
    if (!probes_.ask(*member)) unreached_.insert(member->id);  // D1
  }
  state_ = State::kProbing;
  timer_.start(kAnswerTicks);
  writeQueues_();
}

void Deadlocks::judge() {
  if (std::all_of(circle_.begin(), circle_.end(), [this](unsigned int id) { return isSilent(id); }))
    return name(circle_);
  for (const unsigned int id : circle_)
    if (!isSilent(id)) answered_.insert(id);  // or it is gone
}

void Deadlocks::name(const std::vector<unsigned int>& circle) {
  for (const unsigned int id : circle) (probes_.isOpen(id) ? named_ : answered_).insert(id);
  if (!takeLine()) {
    ++untold_;
    return;
  }
  std::string line = sentenceAbout(circle);
  if (untold_ > 0) line += "; " + std::to_string(std::exchange(untold_, 0)) + " more were not told";
  tell_(line);
}

// Services that do it on purpose must not fill the log.
bool Deadlocks::takeLine() {
  const common::Moment now = clock_();
  const unsigned int more = (now.seconds - linesSince_.seconds) / kLineSeconds;
  if (more > 0) {
    lines_ = std::min(kMostLines, lines_ + std::min(more, kMostLines));
    linesSince_ = now;
  }
  if (lines_ == 0) return false;
  --lines_;
  return true;
}

std::string Deadlocks::sentenceAbout(const std::vector<unsigned int>& circle) const {
  std::string text = "a circle of requests: ";
  for (std::size_t i = 0; i < std::min(circle.size(), kMostNames); ++i) {
    const Service* asker = services_.find(circle[i]);
    const Service* asked = services_.find(circle[(i + 1) % circle.size()]);
    if (asker == nullptr || asked == nullptr) continue;
    if (i > 0) text += ", ";
    text += describe(*asker) + " waits for " + asked->name;
    if (const OpenRequest* request = requestBetween(*asker, *asked))
      text += " (" + nameOfCommand(request->command) + ")";
  }
  if (circle.size() > kMostNames) text += ", and " + std::to_string(circle.size() - kMostNames) + " more";
  return text + "; none of them answers";
}

const OpenRequest* Deadlocks::requestBetween(const Service& asker, const Service& asked) const {
  const OpenRequest* request = requests_.oldestFrom(asker);
  while (request != nullptr && request->callee != &asked) request = requests_.newerFrom(*request);
  return request;
}

}  // namespace loader
