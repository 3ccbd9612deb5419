// Subscriptions, and the notifications of changes.
//
// A subscription is the subscribe request without its system fields, SYS_FROM and SYS_NOTIFYCMD excepted.
// Changed objects gather for a while and then go out together:
//
//     notifyChange   gathers ids; the first one starts the batch timer, the hundredth ends the wait
//     sendChanges    reads the objects, puts each behind its successor where they are ordered,
//     sendNotifies   packs as many as fit into one message,
//     sendNotify     and sends that once, on a path that leads to all its subscribers
//
// S1  the batch timer waits exactly while ids are gathered
// S2  each walk goes over copies, which cost a reference each: callbacks may change what is walked over

#include <algorithm>
#include <map>
#include <utility>

#include "base/assertions.h"
#include "kl/looper.h"
#include "looper/paths.h"

namespace kl {
namespace {

constexpr unsigned int kBatchTicks = 20;
constexpr std::size_t kBatchObjects = 100;
constexpr std::size_t kNotificationBytes = 16383;  // of objects, the first one excepted

constexpr field<std::vector<message::flat_message>> kSavedSubscriptions{0xa8000001};

message::flat_message flat(const message& m) {
  message::flat_message bytes;
  m.flatten(bytes);
  return bytes;
}

message makeRecord(const message& request) {
  message record(request);
  cleanSys(record);
  if (request.has(SYS_FROM)) record.insert(SYS_FROM, pathOf(request, SYS_FROM));
  return record;
}

bool beginsWith(const Path& path, const Path& beginning) {
  return path.size() >= beginning.size() && std::equal(beginning.begin(), beginning.end(), path.begin());
}

// Ordered objects name their successor; the first that is alive and does not decides that these are not.
bool isOrdered(const std::vector<message>& objects) {
  for (const message& object : objects) {
    if (object.has(STD_NEXTID)) return true;
    if (!object.has(STD_DEAD)) return false;
  }
  return false;
}

// Puts each object behind its successor, so that a receiver can always insert it in front of one that it
// knows.
//
// Kept on purpose: of two objects with one successor the second is not sent, nor are objects that succeed
// each other in a ring.  Held by Subscriptions.ObjectsThatTheOrderDoesNotPlaceAreNotSent.
std::vector<message> orderBySuccessor(const std::vector<message>& objects,
                                      const std::set<unsigned int>& ids) {
  std::map<unsigned int, const message*> bySuccessor;
  std::vector<const message*> ends;
  for (const message& object : objects) {
    const unsigned int successor = object.get(STD_NEXTID, BADID);
    if (ids.contains(successor)) bySuccessor.emplace(successor, &object);
    else ends.push_back(&object);
  }
  std::vector<message> ordered;
  ordered.reserve(objects.size());
  for (const message* object : ends) {
    ordered.push_back(*object);
    while (const auto before = bySuccessor.extract(ordered.back().get(STD_ID, BADID)))
      ordered.push_back(*before.mapped());
  }
  return ordered;
}

// A path that leads to one place, or to several as PATH_MULTI and a list of counted paths.
void addDestination(Path& to, const Path& path) {
  if (to.empty()) {
    to = path;
    return;
  }
  if (to.front() != PATH_MULTI) {
    const auto length = static_cast<unsigned int>(to.size());
    to.insert(to.begin(), {PATH_MULTI, length});
  }
  to.push_back(static_cast<unsigned int>(path.size()));
  to.insert(to.end(), path.begin(), path.end());
}

message subscription(const Path& path, unsigned int command, unsigned int notifyCommand,
                     const message& extra) {
  message m(extra);
  m.insert(SYS_TO, path);
  m.insert(SYS_CMD, command);
  m.insert(SYS_NOTIFYCMD, notifyCommand);
  return m;
}

}  // namespace

void Handler::subscribe(const Path& path, unsigned int notifyCommand, const message& extra) {
  message m = subscription(path, CMD_SUBSCRIBE, notifyCommand, extra);
  sendMessage(m);
}

void Handler::unsubscribe(const Path& path, unsigned int notifyCommand, const message& extra) {
  message m = subscription(path, CMD_UNSUBSCRIBE, notifyCommand, extra);
  sendMessage(m);
}

void Handler::cmdSubscribe(const message& request) {
  const message record = makeRecord(request);
  if (std::find(subscriptions_.begin(), subscriptions_.end(), record) != subscriptions_.end()) return;
  subscriptions_.push_back(record);
  subscribed(record);
}

void Handler::cmdUnsubscribe(const message& request) {
  const message record = makeRecord(request);
  if (std::find(subscriptions_.begin(), subscriptions_.end(), record) == subscriptions_.end()) return;
  unsubscribed(record);
  removeSubscription(record);
}

void Handler::cmdDisconnected(const message& m) {
  const Path gone = pathOf(m, SYS_FROM);
  if (gone.empty()) return;
  const std::vector<message> records = subscriptions_;  // S2
  for (const message& record : records) {
    if (!beginsWith(pathOf(record, SYS_FROM), gone)) continue;
    unsubscribed(record);
    removeSubscription(record);
  }
}

void Handler::notifySubscriptions() {
  const std::vector<message> records = subscriptions_;  // S2
  for (const message& record : records) subscribed(record);
}

void Handler::notifyChange(unsigned int id) { notifyChange(id, Path()); }

void Handler::notifyChange(unsigned int id, const message& cause) {
  notifyChange(id, pathOf(cause, SYS_FROM));
}

void Handler::notifyChange(unsigned int id, const Path& originator) {
  if (subscriptions_.empty()) return;
  if (changes_.empty()) {
    originator_ = originator;
    batchTimer_ = getLooper()->addTimer(this, bind<Handler, &Handler::sendChanges>(), kBatchTicks);
  } else if (originator_ != originator) {
    originator_.clear();  // several senders caused the batch: every subscriber gets it
  }
  changes_.insert(id);
  if (changes_.size() == kBatchObjects) sendChanges();
}

// Changes that are reported meanwhile, from inside a callback, begin the next batch.
void Handler::sendChanges() {
  getLooper()->removeTimer(std::exchange(batchTimer_, TimerPtr()));  // S1
  const std::set<unsigned int> ids = std::exchange(changes_, {});
  const Path originator = std::exchange(originator_, {});
  std::vector<message> objects = collectChanges(ids);
  if (isOrdered(objects)) objects = orderBySuccessor(objects, ids);
  const message* const last = objects.data() + objects.size();
  for (const message* first = objects.data(); first != last;) first = sendObjects(first, last, originator);
  notifiesSent();
}

std::vector<message> Handler::collectChanges(const std::set<unsigned int>& ids) {
  std::vector<message> objects;
  objects.reserve(ids.size());
  for (const unsigned int id : ids) {
    const message obj = getObject(id);
    KL_ASSERT_AT("looper.cpp:582", id == kl::BADID || obj.get(STD_ID, kl::BADID) == id);
    objects.push_back(obj);
  }
  return objects;
}

const message* Handler::sendNotifies(const message* first, const message* last) {
  return sendObjects(first, last, Path(originator_));
}

const message* Handler::sendObjects(const message* first, const message* last, const Path& originator) {
  std::vector<message::flat_message> objects;
  std::size_t bytes = 0;
  for (; first != last; ++first) {
    message::flat_message object = flat(*first);
    bytes += object.size();
    if (!objects.empty() && bytes > kNotificationBytes) break;
    objects.push_back(std::move(object));
  }
  message m;
  m.insert(SYS_CMD, CMD_NOTIFY);
  if (!originator.empty()) m.insert(SYS_NOTIFYPATH, originator);
  m.insert(STD_OBJS, objects);
  sendNotify(m);
  return first;
}

void Handler::sendNotify(message& m) {
  KL_ASSERT_AT("looper.cpp:502", m.has(kl::SYS_CMD));
  Path to = pathOf(m, SYS_TO);
  const std::vector<message> records = subscriptions_;  // S2
  for (const message& record : records)
    if (shouldNotify(record, m) && hasPath(record, SYS_FROM)) addDestination(to, pathOf(record, SYS_FROM));
  if (to.empty()) return;
  m.insert(SYS_TO, to);
  sendMessage(m);
}

bool Handler::shouldNotify(const message& record, const message& notification) {
  if (hasPath(record, SYS_FROM) && pathOf(record, SYS_FROM) == pathOf(notification, SYS_NOTIFYPATH))
    return false;
  return record.get(SYS_NOTIFYCMD, CMD_NOTIFY) == notification.get(SYS_CMD, CMD_NOTIFY);
}

void Handler::savePermData(message& data) {
  if (subscriptions_.empty()) return;
  sendChanges();
  auto& saved = *data.get_message_array_ref(kSavedSubscriptions);
  for (const message& record : subscriptions_) saved.push_back(flat(record));
}

void Handler::loadPermData(const message& data) {
  for (const auto& record : data.get(kSavedSubscriptions, {})) subscriptions_.push_back(message(record));
}

void Handler::removeSubscription(const message& record) {
  const auto found = std::find(subscriptions_.begin(), subscriptions_.end(), record);
  if (found != subscriptions_.end()) subscriptions_.erase(found);
}

}  // namespace kl
