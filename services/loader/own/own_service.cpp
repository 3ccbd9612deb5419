// The rows are made when somebody asks for them; of changes only the ids are kept until the batch is sent.  An order to
// leave is answered by the state of its service: as long as that is LEAVING, its caller waits.

#include "own/own_service.h"

#include <algorithm>

#include "kl/chunk.h"
#include "kl/description.h"
#include "kl/message_view.h"
#include "loader.kl.h"
#include "services/common/tap.h"
#include "transport/connection.h"

namespace loader {
namespace {

constexpr std::size_t kMostLeaveOrders = 1024;
constexpr unsigned int kBatchTicks = 20;
constexpr std::size_t kBatchRows = 100;
constexpr Work::Units kSumWork = 4;  // to add one row to the sums

using Objects = std::vector<kl::message::flat_message>;

// The path of a subscriber or a caller inside its process is its return path without the process.
std::vector<unsigned int> pathInside(const kl::message& request) {
  std::vector<unsigned int> path = request.get(kl::SYS_FROM, {});
  if (!path.empty()) path.erase(path.begin());
  return path;
}

// The size of a subscription: the request without the system's fields but its return path.
unsigned int recordBytes(const kl::message& request) {
  kl::message record = request;
  kl::cleanSys(record);
  record.insert(kl::SYS_FROM, request.get(kl::SYS_FROM, {}));
  return record.max_length();
}

// The return path of a request inside its caller, as it lies in the flattened request.
Path returnPathIn(const kl::message::flat_message& request) {
  kl::RecordWalk walk(request);
  for (kl::Record record; walk.next(record);)
    if (record.id() == kl::SYS_FROM && record.count() > 0) return Path(record).withoutFirst();
  return {};
}

// A question only shows something; it changes nothing.
bool isQuestion(unsigned int command) {
  switch (command) {
    case kl::CMD_GET:
    case kl::CMD_GETALL:
    case kl::CMD_GETCOUNT:
    case kl::CMD_GETOBJ:
    case loader_service::CMD_EXPLAIN_RIGHTS:
    case loader_service::CMD_LIST_RIGHTS: return true;
    default: return false;
  }
}

// The table of services is 0, and what no handler is named for.
unsigned int handlerOf(const kl::message& request) {
  const auto to = request.view_u32_array(kl::SYS_TO);
  return to.size() == 1 ? to.front() : 0;
}

kl::message describeLoader(unsigned int command) {
  if (command != kl::CMD_GET)
    return command == kl::CMD_NOOP ? kl::message() : kl::errorMsg(kl::ERROR_NOTIMP, "");
  kl::message reply;
  reply.insert(kl::STD_DESCR, loader_service::kDescription);
  return reply;
}

bool readsNoAnswer(const Service& caller) {
  return caller.connection != nullptr && caller.connection->hasStoppedReading();
}

kl::message deadRow(unsigned int id) {
  kl::message row;
  row.insert(kl::STD_ID, id);
  row.insert(kl::STD_DEAD, 1);
  return row;
}

}  // namespace

kl::message objectOf(const Service& s) {
  kl::message row;
  row.insert(kl::STD_ID, s.id);
  row.insert(loader_service::NAME, s.name);
  row.insert(loader_service::USER, s.user);
  row.insert(loader_service::STATE, s.state);
  row.insert(loader_service::STARTS, s.starts);
  row.insert(loader_service::QUEUE, static_cast<unsigned int>(s.waiting()));
  row.insert(loader_service::REQUESTS, s.requests.servingCount);
  row.insert(loader_service::MESSAGES_IN, s.traffic.messagesIn);
  row.insert(loader_service::MESSAGES_OUT, s.traffic.messagesOut);
  row.insert(loader_service::BYTES_IN, s.traffic.bytesIn);
  row.insert(loader_service::BYTES_OUT, s.traffic.bytesOut);
  row.insert(loader_service::DROPS, s.traffic.drops);
  row.insert(loader_service::DENIALS, s.traffic.denials);
  if (s.isConfigured) row.insert(loader_service::CONFIGURED, true);
  if (s.wakeAt != 0) row.insert(loader_service::WAKE_AT, s.wakeAt);
  if (s.pid > 0) row.insert(loader_service::PID, static_cast<unsigned int>(s.pid));
  if (!s.lastEnd.empty()) row.insert(loader_service::LAST_END, s.lastEnd);
  return row;
}

void OwnService::handle(Service& caller, const kl::message& request) {
  const unsigned int command = request.get(kl::SYS_CMD, kl::CMD_NOOP);
  const bool isAllowed = command == kl::CMD_GETPOLICIES || policies_.is_allowed(request);
  if (!isAllowed) return reply(caller, request, kl::errorMsg(kl::ERROR_NOTALLOWED, whyNotAllowed(request)));
  const unsigned int handler = handlerOf(request);
  const bool isForTable = handler == 0;
  if (isForTable && command == kl::CMD_SUBSCRIBE) return subscribe(caller, request);
  if (isForTable && command == kl::CMD_UNSUBSCRIBE) return unsubscribe(caller, request);
  if (hasUnread(caller)) return reply(caller, request, kl::errorMsg(kl::ERROR_BUSY, ""), Urgency::kOrdinary);
  if (isQuestion(command) && readsNoAnswer(caller)) return;
  if (command == kl::CMD_GETPOLICIES) return reply(caller, request, policies_.get_policies(request));
  if (isForTable) return handleForTable(caller, request, command);
  if (handler == kl::LOADER_REQUESTS) return handleForRequests(caller, request, command);
  if (handler == kl::LOADER_TRAFFIC && traffic_ != nullptr)
    return reply(caller, request, traffic_->answer(caller, request, command, outbox_.work()));
  outbox_.work().spend(Work::kRow);
  const bool isForCrashes = handler == kl::LOADER_CRASHES && crashes_ != nullptr;
  reply(caller, request, isForCrashes ? crashes_->answer(request, command) : describeLoader(command));
}

void OwnService::handleForRequests(Service& caller, const kl::message& request, unsigned int command) {
  const bool isKnown = requests_ != nullptr;
  if (command == kl::CMD_NOOP) return reply(caller, request, {});
  if (isKnown && command == kl::CMD_GETALL)
    return reply(caller, request, requests_->chunk(caller, request, outbox_.work()));
  if (isKnown && command == kl::CMD_GETCOUNT)
    return reply(caller, request, requests_->count(caller, request, outbox_.work()));
  reply(caller, request, kl::errorMsg(kl::ERROR_NOTIMP, ""));
}

void OwnService::handleForTable(Service& caller, const kl::message& request, unsigned int command) {
  const bool isLeave = command == kl::CMD_SETOBJ && request.get(loader_service::ACTION, 0) == kl::SVC_LEAVE;
  if (isLeave && table_.find(request.get(kl::STD_ID, kl::BADID)) != nullptr)
    return orderLeave(caller, request);
  if (explainer_ != nullptr && command == loader_service::CMD_EXPLAIN_RIGHTS)
    return reply(caller, request, explainer_->explain(caller, request));
  if (explainer_ != nullptr && command == loader_service::CMD_LIST_RIGHTS)
    return reply(caller, request, explainer_->list(request));
  if (taps_ != nullptr && command == common::tap::CMD_TAP)
    return reply(caller, request, taps_->answer(caller, request));
  if (reload_ && command == loader_service::CMD_RELOAD) return handleReload(caller, request);
  reply(caller, request, execute(request, command));
}

// A candidate names files and users, which the loader looks for with rights of its own, and what it finds is told.
void OwnService::handleReload(Service& caller, const kl::message& request) {
  const bool isCandidate = request.has(loader_service::CANDIDATE);
  if (isCandidate && !isUnlimited(caller.rights, request))
    return reply(caller, request,
                 kl::errorMsg(kl::ERROR_NOTALLOWED, "a configuration is compared for root alone"));
  reply(caller, request, reload_(request));
}

// Of the trusted, who may send fewer rights than they have; the router sees to all others.
std::string OwnService::whyNotAllowed(const kl::message& request) const {
  const auto need = commands_.find(request.get(kl::SYS_CMD, kl::CMD_NOOP));
  const unsigned int bits = need != commands_.end() ? need->second : kl::RIGHT_OF_NOBODY;
  return "lacks the right " + wordsOf(bits & ~request.get(kl::SYS_POLICY, kl::RIGHTS_ALL));
}

kl::message OwnService::execute(const kl::message& request, unsigned int command) {
  switch (command) {
    case kl::CMD_NOOP: return {};
    case kl::CMD_GETALL: return getAll(request);
    case kl::CMD_GETCOUNT: return getCount();
    case kl::CMD_GETOBJ:
      return request.has(kl::STD_ID) ? getObject(request.get(kl::STD_ID, 0))
                                     : kl::errorMsg(kl::ERROR_UNKNOWNID, "");
    case kl::CMD_SETOBJ: return setObject(request);
    default: return kl::errorMsg(kl::ERROR_NOTIMP, "");
  }
}

// With what only the open requests can say, and in the loader's own the sums.
kl::message OwnService::rowOf(const Service& service) const {
  kl::message row = objectOf(service);
  if (requests_ != nullptr) requests_->addTo(row, service);
  if (service.id == kl::SERVICE_LOADER) addTotals(row);
  return row;
}

// They are summed up when somebody asks, so that no frame pays for them.
void OwnService::addTotals(kl::message& row) const {
  outbox_.work().spend(kSumWork * static_cast<Work::Units>(table_.all().size()));
  const Traffic all = table_.allTraffic();
  row.insert(loader_service::ALL_MESSAGES_IN, all.messagesIn);
  row.insert(loader_service::ALL_MESSAGES_OUT, all.messagesOut);
  row.insert(loader_service::ALL_BYTES_IN, all.bytesIn);
  row.insert(loader_service::ALL_BYTES_OUT, all.bytesOut);
  row.insert(loader_service::ALL_DROPS, all.drops);
  row.insert(loader_service::ALL_DENIALS, all.denials);
  if (connections_ != nullptr) row.insert(loader_service::CONNECTIONS, *connections_);
}

kl::message OwnService::getObject(unsigned int id) {
  outbox_.work().spend(Work::kRow);
  const Service* service = table_.find(id);
  return service != nullptr ? rowOf(*service) : kl::errorMsg(kl::ERROR_UNKNOWNID, "");
}

// One chunk of the table: from STD_GETALLID on (absent: from the start), at most STD_GETALLNO rows (0: as many as
// fit).  While more remain the reply has in STD_GETALLID the id to go on from.  If that row no longer exists, the
// walk continues with the next one.
kl::message OwnService::getAll(const kl::message& request) {
  const unsigned int start = request.get(kl::STD_GETALLID, kl::BADID);
  const unsigned int most = request.get(kl::STD_GETALLNO, 0);
  const ServiceTable::Map& all = table_.all();
  kl::Chunk chunk(most);
  for (auto at = start == kl::BADID ? all.begin() : all.lower_bound(start); at != all.end(); ++at) {
    outbox_.work().spend(Work::kRow);
    if (!chunk.add(at->first, rowOf(*at->second))) break;
  }
  return chunk.reply();
}

kl::message OwnService::getCount() const {
  kl::message reply;
  reply.insert(kl::STD_GETALLNO, static_cast<unsigned int>(table_.all().size()));
  return reply;
}

kl::message OwnService::setObject(const kl::message& request) {
  Service* service = table_.find(request.get(kl::STD_ID, kl::BADID));
  if (service == nullptr) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  if (!request.has(loader_service::ACTION)) return kl::errorMsg(kl::ERROR_MISSING, "");
  const unsigned int action = request.get(loader_service::ACTION, 0);
  if (action != kl::SVC_START && action != kl::SVC_STOP && action != kl::SVC_RESTART)
    return kl::errorMsg(kl::ERROR_NOTIMP, "");
  const char* failure = order_(*service, action);
  return failure == nullptr ? kl::message() : kl::errorMsg(kl::ERROR_FAILED, failure);
}

// Answered when the service has left, or has not.
void OwnService::orderLeave(Service& caller, const kl::message& request) {
  Service& service = *table_.find(request.get(kl::STD_ID, kl::BADID));
  if (leaveOrders_.size() >= kMostLeaveOrders)
    return reply(caller, request, kl::errorMsg(kl::ERROR_BUSY, "too many wait for services to leave"));
  if (const char* failure = order_(service, kl::SVC_LEAVE))
    return reply(caller, request, kl::errorMsg(kl::ERROR_FAILED, failure));
  leaveOrders_.push_back({service.id, &caller, request});
  answerLeaveOrders(service);
}

void OwnService::answerLeaveOrders(const Service& service) {
  kl::message answer;
  switch (service.state) {
    case kl::SVC_STATE_LEAVING: return;
    case kl::SVC_STATE_LEFT: break;
    case kl::SVC_STATE_RUNNING: answer = kl::errorMsg(kl::ERROR_BUSY, "the service refused to leave"); break;
    default: answer = kl::errorMsg(kl::ERROR_FAILED, "the service ended without leaving"); break;
  }
  for (std::size_t i = 0; i < leaveOrders_.size();) {
    const LeaveOrder order = leaveOrders_[i];
    if (order.id != service.id) {
      ++i;
      continue;
    }
    leaveOrders_.erase(leaveOrders_.begin() + static_cast<std::ptrdiff_t>(i));
    reply(*order.caller, order.request, answer);
  }
}

// A subscription too many is passed over, as subscribing is never answered.  Each costs time at every change.
void OwnService::subscribe(Service& caller, const kl::message& request) {
  if (recordBytes(request) > kMostSubscriptionBytes) return;
  if (subscriptions_.countAt(self_, caller) >= kMostSubscriptions) return;
  const kl::message::flat_message body = request.flattened();
  (void)subscriptions_.add(self_, Path(), caller, returnPathIn(body), body);
}

void OwnService::unsubscribe(Service& caller, const kl::message& request) {
  const kl::message::flat_message body = request.flattened();
  subscriptions_.remove(self_, Path(), caller, returnPathIn(body), body);
}

void OwnService::forgetOrdersOf(const Service& caller) {
  std::erase_if(leaveOrders_, [&](const LeaveOrder& order) { return order.caller == &caller; });
}

// Answers that nobody reads must not be made.  The refusal is one, too, but a short one, and is lost in a full queue.
bool OwnService::hasUnread(Service& caller) const { return outbox_.ownBytes(caller) >= kMostUnread; }

// A caller that its own order has ended gets no reply, nor does the next process under its id, for which messages may
// be held already.
void OwnService::reply(Service& caller, const kl::message& request, kl::message answer, Urgency urgency) {
  unsigned int id = 0;
  if (!caller.isConnected() || !kl::getRequestID(request, &id)) return;
  kl::setRequestID(answer, id);
  kl::setType(answer, kl::TYPE_REPLY);
  answer.insert(kl::SYS_TO, pathInside(request));
  answer.insert(kl::SYS_FROM, {kl::SERVICE_LOADER});
  (void)outbox_.send(caller, answer, urgency);
}

void OwnService::onRowChanged(unsigned int id) {
  if (!leaveOrders_.empty())
    if (const Service* service = table_.find(id)) answerLeaveOrders(*service);
  if (self_.subscriptions.oldestAt == nullptr) return;
  if (changed_.empty()) batchTimer_.start(kBatchTicks);
  changed_.insert(id);
  if (changed_.size() < kBatchRows) return;
  batchTimer_.cancel();
  sendChanges();
}

void OwnService::onBatchTimer() {
  sendChanges();
  writeQueues_();
}

void OwnService::sendChanges() {
  const std::set<unsigned int> ids = std::exchange(changed_, {});
  Objects objects;
  std::size_t bytes = 0;
  for (const unsigned int id : ids) {
    const Service* service = table_.find(id);
    kl::message::flat_message row = (service != nullptr ? rowOf(*service) : deadRow(id)).flattened();
    if (!objects.empty() && bytes + row.size() > kl::Chunk::kMostBytes) {
      notify(objects);
      objects.clear();
      bytes = 0;
    }
    bytes += row.size();
    objects.push_back(std::move(row));
  }
  notify(objects);
}

void OwnService::notify(const Objects& objects) {
  for (const Subscription* s = self_.subscriptions.oldestAt; s != nullptr; s = s->newerAt) {
    const KeptChannel& channel = *s->channel;
    if (!channel.subscriber->isConnected()) continue;  // it left, and its own leave is no reason to start it
    kl::message m;
    m.insert(kl::SYS_CMD, channel.command);
    m.insert(kl::SYS_TO, channel.returnPathIds());
    m.insert(kl::SYS_FROM, {kl::SERVICE_LOADER});
    m.insert(kl::STD_OBJS, objects);
    (void)outbox_.send(*channel.subscriber, m, Urgency::kOrdinary);
  }
}

}  // namespace loader
