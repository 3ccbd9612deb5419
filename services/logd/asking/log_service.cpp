// Followers: onNews starts a timer unless it runs; when it fires, the lines since the last time go out, once for each
// different filter that somebody has.
//
// L1  the book knows the first line that followers have not been sent; without followers nothing is sent
// L2  a burst costs at most kMostMessages for each filter and each 50 ms
// L3  each subscription is kept with the condition that its subscriber's rights set when it subscribed; two followers
//     share a notification only where their filters, these conditions included, are the same
// L4  followers who see their own lines alone have kMostOfUser subscriptions each and leave the last quarter to others

#include "asking/log_service.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "asking/line_table.h"
#include "kl/bind.h"
#include "log.kl.h"
#include "services/common/version.h"

namespace logd {
namespace {

constexpr unsigned int kTellTicks = 5;
constexpr unsigned int kSecondTicks = 100;
constexpr unsigned int kMostMessages = 32;
constexpr std::size_t kMostSubscriptions = 256;
constexpr std::size_t kMostOfUser = 32;

LogService* theService = nullptr;

// The different filters of those who follow.
std::vector<LineFilter> filtersOf(const std::vector<kl::message>& subscriptions) {
  std::vector<LineFilter> filters;
  for (const kl::message& record : subscriptions) {
    const LineFilter filter(record);
    if (std::find(filters.begin(), filters.end(), filter) == filters.end()) filters.push_back(filter);
  }
  return filters;
}

}  // namespace

LogService::LogService(const Limits& limits, LogBook& book, const Listener& listener,
                       const common::KnownUsers& users, pid_t loader)
    : kl::Looper(kAny, log_service::SERVICE, common::versionWord()),
      book_(book),
      clients_(*this, book, listener, limits, loader),
      rules_(book, [this] { clients_.applyMutes(); }),
      viewers_(users) {
  addHandler(log_service::HANDLER_RULE, &rules_);
  book_.setOnNews([this] { onNews(); });
  addTimer(this, kl::bind<LogService, &LogService::onTick>(), kSecondTicks);
  addSighandler(SIGHUP, this, kl::bind<LogService, &LogService::onHangup>(), true);
  addSighandler(SIGTERM, this, kl::bind<LogService, &LogService::onEndSignal>(), true);
  addSighandler(SIGINT, this, kl::bind<LogService, &LogService::onEndSignal>(), true);
  theService = this;
  (void)std::atexit(&LogService::drainAtExit);
}

LogService::~LogService() {
  theService = nullptr;
  book_.setOnNews({});
}

void LogService::handleCmd(const kl::message& request, unsigned int command) {
  if (command == kl::CMD_SUBSCRIBE || command == kl::CMD_UNSUBSCRIBE) changeSubscription(request, command);
  else Looper::handleCmd(request, command);
}

// L3.  The rights of a subscriber may have changed since it subscribed: what it had under the others goes.
void LogService::changeSubscription(kl::message request, unsigned int command) {
  if (request.has(kl::SYS_POLICY)) {
    const kl::message own = limitedTo(request, viewers_.userOf(request));
    const bool seesAll = !viewers_.onlyOf(request);
    if (own != request) cmdUnsubscribe(seesAll ? own : request);
    if (!seesAll) request = own;
  }
  if (command == kl::CMD_UNSUBSCRIBE) cmdUnsubscribe(request);
  else if (!isFull(request)) cmdSubscribe(request);
}

// L4
bool LogService::isFull(const kl::message& request) const {
  const auto& records = getSubscriptions();
  const auto uid = LineFilter(request).uid();
  if (!uid) return records.size() >= kMostSubscriptions;
  const auto isOfUser = [&](const kl::message& record) { return LineFilter(record).uid() == uid; };
  return records.size() >= kMostSubscriptions - kMostSubscriptions / 4 ||
         std::count_if(records.begin(), records.end(), isOfUser) >= std::ptrdiff_t{kMostOfUser};
}

// A viewer who sees the lines of one user alone learns whose.
kl::message LogService::cmdGet(const kl::message& request) {
  kl::message reply;
  if (const auto uid = viewers_.onlyOf(request)) reply.insert(log_service::UID, *uid);
  reply.insert(log_service::CLIENTS, static_cast<unsigned int>(clients_.size()));
  reply.insert(log_service::LINES, clients_.tally().lines);
  reply.insert(log_service::DROPPED, clients_.tally().dropped);
  reply.insert(log_service::TORN, clients_.tally().torn);
  reply.insert(log_service::MEMORY, static_cast<unsigned int>(book_.ring().bytes()));
  return reply;
}

kl::message LogService::cmdGetObj(const kl::message& request, unsigned int id) {
  return logd::getObject(book_.ring(), id, viewers_.onlyOf(request));
}

kl::message LogService::cmdGetAll(const kl::message& request, unsigned int start, unsigned int count) {
  return logd::getAll(book_.ring(), viewers_.limited(request), start, count);
}

kl::message LogService::cmdGetCount(const kl::message& request) {
  return logd::getCount(book_.ring(), viewers_.limited(request));
}

bool LogService::shouldNotify(const kl::message& record, const kl::message& notification) {
  return Looper::shouldNotify(record, notification) && (group_ == nullptr || LineFilter(record) == *group_);
}

void LogService::onNews() {
  if (tellsSoon_) return;
  if (getSubscriptions().empty()) {
    book_.noteTold();  // L1
    return;
  }
  tellsSoon_ = true;
  addTimer(this, kl::bind<LogService, &LogService::tellFollowers>(), kTellTicks);
}

void LogService::tellFollowers() {
  tellsSoon_ = false;
  for (const LineFilter& filter : filtersOf(getSubscriptions())) tellGroup(filter);
  book_.noteTold();
}

// Lines that are no longer in memory are counted, whether the filter would have let them through or not, but for their
// user.
void LogService::tellGroup(const LineFilter& filter) {
  const Ring& ring = book_.ring();
  Ring::Number next = ring.told();
  Ring::Number lost = ring.lostUntold(filter.uid());
  group_ = &filter;
  for (unsigned int sent = 0; next != ring.end() || lost > 0; ++sent) {
    const bool isLast = sent + 1 == kMostMessages;
    kl::message m;
    m.insert(kl::SYS_CMD, kl::CMD_NOTIFY);
    const auto objects = takeChunk(ring, filter, next, 0);
    if (isLast) lost += countRest(ring, filter, next);  // L2
    if (objects.empty() && lost == 0) break;
    m.insert(kl::STD_OBJS, objects);
    if (lost > 0) m.insert(log_service::SKIPPED, static_cast<unsigned int>(lost));
    lost = 0;
    sendNotify(m);
  }
  group_ = nullptr;
}

void LogService::onTick() {
  const Nanoseconds now = steadyTime();
  clients_.tick(now);
  book_.tick(now);
  addTimer(this, kl::bind<LogService, &LogService::onTick>(), kSecondTicks);
}

void LogService::onHangup(int) { book_.reopen(steadyTime()); }

void LogService::onEndSignal(int) {
  clients_.drain();
  shutdown();
}

// The library ends the process when the loader goes away; what clients have written by then is still taken.
void LogService::drainAtExit() {
  if (theService != nullptr) theService->clients_.drain();
}

}  // namespace logd
