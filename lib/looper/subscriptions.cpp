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
// A notification for so many subscribers that their paths make it too large for a frame goes out in parts.
//
// S1  the batch timer waits exactly while ids are gathered
// S2  each walk goes over copies, which cost a reference each: callbacks may change what is walked over
// S3  behind each callback nothing of the handler is touched before its Liveness was asked
// S4  the index hears of every change of the list

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <typeinfo>
#include <utility>

#include "base/assertions.h"
#include "base/report.h"
#include "kl/looper.h"
#include "looper/framing.h"
#include "looper/liveness.h"
#include "looper/paths.h"
#include "looper/subscription_index.h"

namespace kl {
namespace {

constexpr unsigned int kBatchTicks = 20;
constexpr std::size_t kBatchObjects = 100;
constexpr std::size_t kNotificationBytes = 16383;  // of objects, the first one excepted

constexpr std::size_t kArrayBytes = 6;    // of an array without its elements
constexpr std::size_t kElementBytes = 4;  // of an array of numbers

constexpr field<std::vector<message::flat_message>> kSavedSubscriptions{0xa8000001};

// The record that a handler keeps of a request to subscribe.
message recordOf(const message& request) {
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
  std::map<unsigned int, unsigned int> bySuccessor;  // places of objects
  std::vector<unsigned int> ends;
  for (unsigned int i = 0; i < objects.size(); ++i) {
    const unsigned int successor = objects[i].get(STD_NEXTID, BADID);
    if (ids.contains(successor)) bySuccessor.insert({successor, i});
    else ends.push_back(i);
  }
  std::vector<message> ordered;
  ordered.reserve(objects.size());
  for (unsigned int place : ends) {
    while (true) {
      ordered.push_back(objects[place]);
      const auto before = bySuccessor.find(objects[place].get(STD_ID, BADID));
      if (before == bySuccessor.end()) break;
      place = before->second;
      bySuccessor.erase(before);
    }
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

// Calls f with every path of a PATH_MULTI list and whether it leads out of the process; false if the list is malformed.
template <class F>
bool walkDestinations(const Path& list, F f) {
  for (std::size_t i = 1; i < list.size();) {
    const std::size_t count = list[i++];
    if (count == 0 || count > list.size() - i) return false;
    f(Path(list.begin() + static_cast<std::ptrdiff_t>(i),
           list.begin() + static_cast<std::ptrdiff_t>(i + count)),
      list[i] != PATH_SELF);
    i += count;
  }
  return true;
}

// How many numbers of a PATH_MULTI list leave the process; 0 where there is none.
std::size_t countLeaving(const Path& to) {
  if (to.front() != PATH_MULTI) return 0;
  std::size_t count = 1;
  const bool isWhole =
      walkDestinations(to, [&](const Path& path, bool leaves) { count += leaves ? 1 + path.size() : 0; });
  return isWhole ? count : 0;
}

std::string className(const Handler& handler) {
  const char* const name = typeid(handler).name();
  char* const plain = abi::__cxa_demangle(name, nullptr, nullptr, nullptr);
  std::string result = plain != nullptr ? plain : name;
  std::free(plain);
  return result;
}

std::string describeWrongObject(const Handler& handler, unsigned int id, const message& object) {
  const unsigned int* const given = object.get_u32_ref(STD_ID);
  return "handler " + decimal(handler.getHandlerID()) + " (" + className(handler) + "): getObject(" +
         decimal(id) + ") gave an object " +
         (given != nullptr ? "with STD_ID " + decimal(*given) : std::string("without STD_ID"));
}

message subscriptionRequest(const Path& path, unsigned int command, unsigned int notifyCommand,
                            const message& extra) {
  message m(extra);
  m.insert(SYS_TO, path);
  m.insert(SYS_CMD, command);
  m.insert(SYS_NOTIFYCMD, notifyCommand);
  return m;
}

}  // namespace

void Handler::subscribe(const Path& path, unsigned int notifyCommand, const message& extra) {
  message m = subscriptionRequest(path, CMD_SUBSCRIBE, notifyCommand, extra);
  sendMessage(m);
}

void Handler::unsubscribe(const Path& path, unsigned int notifyCommand, const message& extra) {
  message m = subscriptionRequest(path, CMD_UNSUBSCRIBE, notifyCommand, extra);
  sendMessage(m);
}

void Handler::cmdSubscribe(const message& request) {
  const message record = recordOf(request);
  if (placeOfSubscription(record) != subscriptions_.size()) return;
  if (subscriptions_.size() >= getSubscriptionLimit()) return;
  addSubscription(record);
  subscribed(record);
}

void Handler::cmdUnsubscribe(const message& request) {
  const message record = recordOf(request);
  if (placeOfSubscription(record) == subscriptions_.size()) return;
  const Liveness self(*this);
  unsubscribed(record);
  if (!self.ended()) removeSubscription(record);
}

void Handler::cmdDisconnected(const message& m) {
  const Path gone = pathOf(m, SYS_FROM);
  if (gone.empty()) return;
  const std::vector<message> records = subscriptions_;  // S2
  const Liveness self(*this);
  for (const message& record : records) {
    if (!beginsWith(pathOf(record, SYS_FROM), gone)) continue;
    unsubscribed(record);
    if (self.ended()) return;  // S3
    removeSubscription(record);
  }
}

void Handler::notifySubscriptions() {
  const std::vector<message> records = subscriptions_;  // S2
  const Liveness self(*this);
  for (auto record = records.begin(); record != records.end() && !self.ended(); ++record)
    subscribed(*record);  // S3
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
  const Liveness self(*this);
  std::vector<message> objects = collectChanges(ids);
  if (isOrdered(objects)) objects = orderBySuccessor(objects, ids);
  const message* const last = objects.data() + objects.size();
  for (const message* first = objects.data(); first != last && !self.ended();)  // S3
    first = sendObjects(first, last, originator);
  if (!self.ended()) notifiesSent();
}

std::vector<message> Handler::collectChanges(const std::set<unsigned int>& ids) {
  std::vector<message> objects;
  objects.reserve(ids.size());
  const Liveness self(*this);
  for (const unsigned int id : ids) {
    const message obj = getObject(id);
    if (self.ended()) return objects;  // S3
    KL_ASSERT_AT_SAYING("looper.cpp:582", describeWrongObject(*this, id, obj),
                        id == kl::BADID || obj.get(STD_ID, kl::BADID) == id);
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
    message::flat_message object = first->flattened();
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
  const Liveness self(*this);
  for (const message& record : records) {
    const bool interested = shouldNotify(record, m);
    if (self.ended()) return;  // S3
    if (interested && hasPath(record, SYS_FROM)) addDestination(to, pathOf(record, SYS_FROM));
  }
  if (to.empty()) return;
  const std::size_t mostBytes = m.max_length() + kSenderBytes + kArrayBytes + kElementBytes * to.size();
  if (mostBytes > FRAME_MOST_BYTES) return sendToMany(m, to);
  m.insert(SYS_TO, to);
  sendMessage(m);
}

// Sends it once where it fits, or where no part of it would, and else in parts, each with as many of the paths as fit.
void Handler::sendToMany(message& m, const Path& to) {
  message part(m);
  part.remove(SYS_TO);
  const std::size_t taken = sentLength(part) + kArrayBytes;
  const std::size_t room = taken <= FRAME_MOST_BYTES ? (FRAME_MOST_BYTES - taken) / kElementBytes : 0;
  if (room == 0 || countLeaving(to) <= room) {
    m.insert(SYS_TO, to);
    return sendMessage(m);
  }
  const Liveness self(*this);
  Path some;
  std::size_t leaving = 1;  // numbers of `some` that leave the process, as countLeaving() counts them
  const auto sendPart = [&] {
    if (self.ended()) return;  // S3
    message copy(part);
    copy.insert(SYS_TO, some);
    sendMessage(copy);
  };
  (void)walkDestinations(to, [&](const Path& path, bool leaves) {
    const std::size_t added = leaves ? 1 + path.size() : 0;
    if (leaving > 1 && leaving + added > room) {
      sendPart();
      some.clear();
      leaving = 1;
    }
    addDestination(some, path);
    leaving += added;
  });
  sendPart();
}

bool Handler::shouldNotify(const message& record, const message& notification) {
  if (hasPath(record, SYS_FROM) && pathOf(record, SYS_FROM) == pathOf(notification, SYS_NOTIFYPATH))
    return false;
  return record.get(SYS_NOTIFYCMD, CMD_NOTIFY) == notification.get(SYS_CMD, CMD_NOTIFY);
}

void Handler::savePermData(message& data) {
  if (subscriptions_.empty()) return;
  const Liveness self(*this);
  sendChanges();
  if (self.ended()) return;  // S3
  auto& saved = *data.get_message_array_ref(kSavedSubscriptions);
  for (const message& record : subscriptions_) saved.push_back(record.flattened());
}

void Handler::loadPermData(const message& data) {
  for (const auto& record : data.get(kSavedSubscriptions, {})) addSubscription(message(record));
}

void Handler::setSubscriptionLimit(unsigned int most) {
  if (!subscriptionIndex_) subscriptionIndex_ = std::make_unique<SubscriptionIndex>();
  subscriptionIndex_->limit = most;
}

unsigned int Handler::getSubscriptionLimit() const {
  return subscriptionIndex_ ? subscriptionIndex_->limit : BADID;
}

// S4.  As long as there are few, nobody needs an index.
void Handler::addSubscription(const message& record) {
  subscriptions_.push_back(record);
  if (subscriptions_.size() <= SubscriptionIndex::kFew) return;
  if (!subscriptionIndex_) subscriptionIndex_ = std::make_unique<SubscriptionIndex>();
  subscriptionIndex_->noteAdded(subscriptions_);
}

// The number of subscriptions where no equal one is there.
std::size_t Handler::placeOfSubscription(const message& record) const {
  if (subscriptionIndex_) return subscriptionIndex_->find(subscriptions_, record);
  const auto found = std::find(subscriptions_.begin(), subscriptions_.end(), record);
  return static_cast<std::size_t>(found - subscriptions_.begin());
}

// S4.  The messages behind it move up as bytes, and it itself to the end.  A message is one pointer, and nothing points
// to a message; to exchange them one by one takes several times as long, which counts where a process with many ends.
void Handler::removeSubscription(const message& record) {
  static_assert(sizeof(message) == sizeof(void*));
  const std::size_t place = placeOfSubscription(record);
  if (place == subscriptions_.size()) return;
  if (subscriptionIndex_) subscriptionIndex_->noteRemoval(subscriptions_, place);
  auto* const at = reinterpret_cast<unsigned char*>(subscriptions_.data() + place);
  const std::size_t behind = (subscriptions_.size() - place - 1) * sizeof(message);
  unsigned char removed[sizeof(message)];
  std::memcpy(removed, at, sizeof removed);
  std::memmove(at, at + sizeof removed, behind);
  std::memcpy(at + behind, removed, sizeof removed);
  subscriptions_.pop_back();
}

}  // namespace kl
