// The watcher: a copy of a table that survives the end of its service.
//
//     idle --watch--> fetching --last chunk--> following
//                        |   ^                     |
//                     error  timer          error, CMD_DISCONNECTED
//                        v   |                     |
//                       waiting <------------------'
//
// The subscription goes out before the first request, and the messages of a service arrive in order.  So the
// notification of a change during the fetch comes after the chunk with the old state, and the last state of each object
// is the current one.  Chunks and notifications are therefore taken in every state but idle.
//
// W1  an id that was reported is in known_ or in stale_, never in both
// W2  stale_ has the ids that no complete fetch has confirmed yet; it is empty while following
// W3  the timer waits exactly in the state waiting

#include "kl/watcher.h"

#include <algorithm>
#include <utility>

#include "kl/message_view.h"

namespace kl {
namespace {

constexpr unsigned int kFirstRetryTicks = 5;
constexpr unsigned int kLongestRetryTicks = 100;

}  // namespace

// A notification counts by its sender, not by the sender's rights.
Watcher::Watcher() { accessPolicies().set_policy(CMD_NOTIFY, 0); }

Watcher::~Watcher() {
  if (getLooper()) stop();
}

void Watcher::watch(const std::vector<unsigned int>& path, const message& extra) {
  stop();
  path_ = path;
  extra_ = extra;
  retryTicks_ = kFirstRetryTicks;
  if (!path_.empty()) fetchTable();
}

void Watcher::stop() {
  if (path_.empty()) return;
  ++run_;
  reget_.stop();
  getLooper()->removeTimer(std::exchange(retryTimer_, TimerPtr()));
  known_.clear();
  stale_.clear();
  complete_ = lost_ = false;
  unsubscribe(std::exchange(path_, {}), CMD_NOTIFY, extra_);
}

void Watcher::objectChanged(const message&) {}
void Watcher::objectRemoved(unsigned int) {}
void Watcher::tableComplete() {}
void Watcher::providerLost(const message&) {}

void Watcher::handleCmd(const message& request, unsigned int command) {
  if (command != CMD_NOTIFY || !isFromProvider(request)) return Handler::handleCmd(request, command);
  if (!request.has(STD_OBJS)) return;
  const unsigned int run = run_;
  for (const auto& object : *request.get_message_array_ref(STD_OBJS)) {
    take(object);
    if (run != run_) return;
  }
}

void Watcher::handleBrkpath(const message& notice) {
  if (isFromProvider(notice)) tryLater(notice);
}

void Watcher::cmdDisconnected(const message& m) {
  Handler::cmdDisconnected(m);
  if (isFromProvider(m)) tryLater(m);
}

// The first element is the loader's word, the others are the sender's.
bool Watcher::isFromProvider(const message& m) const {
  const array_view<unsigned int> from = m.view_u32_array(SYS_FROM);
  return !path_.empty() && !from.empty() && from.front() == path_.front();
}

void Watcher::fetchTable() {
  retryTimer_ = TimerPtr();
  stale_.merge(known_);
  subscribe(path_, CMD_NOTIFY, extra_);
  message request(extra_);
  request.insert(SYS_TO, path_);
  request.insert(SYS_CMD, CMD_GETALL);
  reget_.start(request, this, bind<Watcher, &Watcher::take>(), bind<Watcher, &Watcher::onFetched>(),
               timeout_);
}

// W1
void Watcher::take(const message& object) {
  const unsigned int id = object.get(STD_ID, BADID);
  const bool wasStale = stale_.erase(id) != 0;
  if (!object.has(STD_DEAD)) {
    known_.insert(id);
    objectChanged(object);
  } else if (known_.erase(id) != 0 || wasStale) {
    objectRemoved(id);
  }
}

void Watcher::onFetched(const message& reply) {
  if (path_.empty()) return;  // stopped by the last object
  if (isError(reply) || !reply.has(STD_OBJS)) return tryLater(reply);
  const unsigned int run = run_;
  removeStale();
  if (run != run_) return;
  retryTicks_ = kFirstRetryTicks;
  lost_ = false;
  complete_ = true;
  tableComplete();
}

// W2
void Watcher::removeStale() {
  const unsigned int run = run_;
  while (run == run_ && !stale_.empty()) {
    const unsigned int id = *stale_.begin();
    stale_.erase(stale_.begin());
    objectRemoved(id);
  }
}

// W3
void Watcher::tryLater(const message& reason) {
  reget_.stop();
  complete_ = false;
  if (!retryTimer_) {
    retryTimer_ = getLooper()->addTimer(this, bind<Watcher, &Watcher::fetchTable>(), retryTicks_);
    retryTicks_ = std::min(2 * retryTicks_, kLongestRetryTicks);
  }
  if (!std::exchange(lost_, true)) providerLost(reason);
}

}  // namespace kl
