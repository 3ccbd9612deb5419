// A record and what becomes of it:
//
//     CMD_ADDOBJ --> done --CMD_START--> its service undoes it and reports --CMD_SETOBJ--> undone
//                     ^                                                                      |
//                     +---CMD_SETOBJ-- its service does it again and reports <---CMD_START---+
//
// U1  a record is turned round by its service's report only, so it always shows what its service has done
// U2  only the process that made a record reports about it and is sent its undo message: the loader puts the first
//     element of a path back, so neither can be forged
// U3  an undo message carries the rights that its caller has at its maker when it is sent, never those of this service
//     (undo_orders.cpp)
// U4  records of an id that is not configured are there only while its process is: nobody else is given their messages
// U5  a record is shown to root, to the user whom it names and to who has the right "contents"; a notification has
//     records of one user only, so that it can be kept from the others
// U6  a user's reports push out his own records first

#include "undo_service.h"

#include <algorithm>
#include <ctime>

#include "kl/chunk.h"
#include "kl/message_view.h"
#include "kl/services.h"
#include "kl/utilities.h"
#include "remarks.h"
#include "reports.h"
#include "services/common/version.h"
#include "undo.kl.h"
#include "viewers.h"

namespace undo {
namespace {

constexpr unsigned int kFirstPicked = 0x10000;  // from here on ids are the loader's to give
constexpr int kLoaderTicks = 500;

bool isPicked(unsigned int id) { return id >= kFirstPicked; }

unsigned int senderOf(const kl::message& m) {
  const auto from = m.view_u32_array(kl::SYS_FROM);
  return from.empty() ? kl::BADID : from.front();
}

kl::message hiddenError() {
  return kl::errorMsg(kl::ERROR_NOTALLOWED, "the record is of another user, and you lack the right contents");
}

bool hasRecordsOf(const Records& records, unsigned int maker) {
  const Records::Makers& all = records.makers();
  return std::any_of(all.begin(), all.end(), [&](const auto& record) { return record.second == maker; });
}

kl::message rowRequest(unsigned int service) {
  kl::message m;
  m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  m.insert(kl::SYS_CMD, kl::CMD_GETOBJ);
  m.insert(kl::STD_ID, service);
  return m;
}

}  // namespace

// A user who may make a change may undo it: the record holds the rights that CMD_START needs, not a policy.  A report is
// a service's account of itself, and changes nothing of others.
UndoService::UndoService()
    : kl::Looper(kAny, undo_service::SERVICE, common::versionWord()),
      limit_(std::clamp(getLoaderData().get(undo_service::SETTING_LIMIT, undo_service::SETTING_LIMIT_DEFAULT),
                        undo_service::SETTING_LIMIT_MIN, undo_service::SETTING_LIMIT_MAX)),
      records_(getLoaderData().get(undo_service::SETTING_FOLDER,
                                   kl::underRoot(undo_service::SETTING_FOLDER_DEFAULT))) {
  accessPolicies().set_policy(kl::CMD_START, 0);
  accessPolicies().set_policy(kl::CMD_ADDOBJ, kl::RIGHT_READ);
  accessPolicies().set_policy(kl::CMD_SETOBJ, kl::RIGHT_READ);
  dropRecordsOfTheGone();
  dropSurplus({});
  log(kl::TOPIC_INFO, "keeps " + std::to_string(records_.makers().size()) + " undo records");
}

void UndoService::handleCmd(const kl::message& request, unsigned int command) {
  const bool isSubscription = command == kl::CMD_SUBSCRIBE || command == kl::CMD_UNSUBSCRIBE;
  if (command == kl::CMD_START) orders_.start(request);
  else kl::Looper::handleCmd(isSubscription ? withViewer(request) : request, command);
}

// Refused reports are logged: each is a change that cannot be undone.
bool UndoService::checkPolicy(const kl::message& request) {
  if (kl::Looper::checkPolicy(request)) return true;
  const unsigned int command = request.get(kl::SYS_CMD, kl::CMD_NOOP);
  if (command == kl::CMD_ADDOBJ || command == kl::CMD_SETOBJ)
    log(kl::TOPIC_WARNING,
        "refuses a report of " + serviceText(senderOf(request)) + ", which may not even read");
  return false;
}

kl::message UndoService::cmdAddObj(const kl::message& request) {
  const unsigned int maker = senderOf(request);
  if (maker == kl::BADID) return kl::errorMsg(kl::ERROR_MISSING, "");
  if (kl::message fault = faultOf(request); kl::isError(fault)) {
    log(kl::TOPIC_WARNING, "refuses a report of " + serviceText(maker) + ": " + kl::getError(fault));
    return fault;
  }
  const unsigned int id =
      records_.add(recordFrom(request, static_cast<unsigned long long>(std::time(nullptr))));
  if (id == kl::BADID) {
    log(kl::TOPIC_WARNING, "drops a record of " + serviceText(maker) + ": it is too big or cannot be stored");
    return kl::errorMsg(kl::ERROR_TOOBIG, "");
  }
  const Origin origin = records_.originOf(id);
  tell(id, origin, request.get(kl::SYS_FROM, {}));
  dropSurplus(origin);
  kl::message reply;
  reply.insert(kl::STD_ID, id);
  return reply;
}

// U1, U2
kl::message UndoService::cmdSetObj(const kl::message& request, unsigned int id) {
  const auto record = records_.makers().find(id);
  if (record == records_.makers().end()) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  if (senderOf(request) != record->second) {
    log(kl::TOPIC_WARNING,
        "refuses a report of " + serviceText(senderOf(request)) + " about " + recordText(id) + " of another");
    return kl::errorMsg(kl::ERROR_NOTALLOWED, "");
  }
  if (kl::message fault = faultOf(request); kl::isError(fault)) return fault;
  const Origin origin = records_.originOf(id);
  const bool isKept = records_.replace(id, turnedRound(records_.get(id), request));
  tell(id, origin, request.get(kl::SYS_FROM, {}));
  if (isKept) return {};
  log(kl::TOPIC_WARNING, "drops " + recordText(id) + ": its report is too big or cannot be stored");
  return kl::errorMsg(kl::ERROR_TOOBIG, "");
}

kl::message UndoService::cmdGetObj(const kl::message& request, unsigned int id) {
  if (!records_.makers().contains(id)) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  return isHidden(id, request) ? hiddenError() : records_.get(id);
}

// If the record at the start no longer exists, the walk continues with the next older one.
kl::message UndoService::cmdGetAll(const kl::message& request, unsigned int start, unsigned int count) {
  const Records::Makers& all = records_.makers();
  kl::Chunk chunk(count);
  for (auto at = all.lower_bound(start); at != all.end(); ++at) {
    if (isHidden(at->first, request)) continue;
    if (!chunk.add(at->first, records_.get(at->first))) break;
  }
  return chunk.reply();
}

kl::message UndoService::cmdGetCount(const kl::message& request) {
  unsigned int count = 0;
  for (const auto& [id, maker] : records_.makers()) count += isHidden(id, request) ? 0 : 1;
  kl::message reply;
  reply.insert(kl::STD_GETALLNO, count);
  return reply;
}

kl::message UndoService::cmdRemoveObj(const kl::message& request, unsigned int id) {
  if (!records_.makers().contains(id)) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  if (isHidden(id, request)) return hiddenError();
  const Origin origin = records_.originOf(id);
  records_.remove(id);
  tell(id, origin, request.get(kl::SYS_FROM, {}));
  return {};
}

// U4.  A service that is configured stays in the loader's table.
void UndoService::cmdDisconnected(const kl::message& m) {
  kl::Looper::cmdDisconnected(m);
  const auto gone = m.get(kl::SYS_FROM, {});
  if (gone.size() != 1 || !hasRecordsOf(records_, gone.front())) return;
  if (isPicked(gone.front())) return dropRecordsOf(gone.front());
  kl::message row = rowRequest(gone.front());
  postMessage(row, this, kl::bind<UndoService, &UndoService::onRowOfTheGone>(), m, kLoaderTicks);
}

void UndoService::onRowOfTheGone(const kl::message& row, const kl::message& notice) {
  unsigned int code = kl::ERROR_OK;
  if (kl::isError(row, &code) && code == kl::ERROR_UNKNOWNID)
    dropRecordsOf(notice.get(kl::SYS_FROM, {kl::BADID}).front());
}

kl::message UndoService::getObject(unsigned int id) {
  if (records_.makers().contains(id)) return records_.get(id);
  kl::message dead;
  dead.insert(kl::STD_ID, id);
  dead.insert(kl::STD_DEAD, 1);
  return dead;
}

// U5.  The library asks this for each subscriber while it sends the records that told_ is about.
bool UndoService::shouldNotify(const kl::message& record, const kl::message& notification) {
  return Viewer::ofSubscription(record).sees(told_) && kl::Looper::shouldNotify(record, notification);
}

bool UndoService::isHidden(unsigned int id, const kl::message& request) const {
  return !Viewer::of(request).sees(records_.originOf(id).user);
}

// U5.  Changes gathered about another user's records go out first.
void UndoService::tell(unsigned int id, const Origin& origin, const std::vector<unsigned int>& cause) {
  if (origin.user != told_) sendChanges();
  told_ = origin.user;
  notifyChange(id, cause);
}

void UndoService::drop(unsigned int id, const std::string& reason) {
  log(kl::TOPIC_INFO, "drops " + recordText(id) + ": " + reason);
  const Origin origin = records_.originOf(id);
  records_.remove(id);
  tell(id, origin);
}

// U6
void UndoService::dropSurplus(const Origin& newest) {
  while (records_.makers().size() > limit_) drop(records_.firstToGo(newest), "there are newer ones");
}

void UndoService::dropRecordsOf(unsigned int maker) {
  const Records::Makers all = records_.makers();
  for (const auto& [id, its] : all)
    if (its == maker) drop(id, serviceText(maker) + " has ended");
}

// Services that ended while this one was not running sent it no notice.
void UndoService::dropRecordsOfTheGone() {
  std::set<unsigned int> makers;
  for (const auto& [id, maker] : records_.makers()) makers.insert(maker);
  std::set<unsigned int> connected;
  if (makers.empty() || !readServices(connected)) return;
  for (const unsigned int maker : makers)
    if (!connected.contains(maker)) dropRecordsOf(maker);
}

// The ids in the loader's table; false when it does not answer.
bool UndoService::readServices(std::set<unsigned int>& connected) {
  for (unsigned int next = 0;;) {
    kl::message m;
    m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
    m.insert(kl::STD_GETALLID, next);
    const kl::message reply = exchangeCmd(m, kl::CMD_GETALL, kLoaderTicks);
    if (kl::isError(reply)) return false;
    for (const kl::message service : reply.get(kl::STD_OBJS, {}))
      connected.insert(service.get(kl::STD_ID, kl::BADID));
    if (!reply.has(kl::STD_GETALLID)) return true;
    next = reply.get(kl::STD_GETALLID, 0);
  }
}

}  // namespace undo
