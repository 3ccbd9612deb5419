// The way of a frame:
//
//     route --control frame for [1]--> handleControl
//           --PATH_ALL--> deliverToAll ----.
//           --PATH_MULTI--> deliverToEach -+--> deliver --[1]--> deliverToLoader
//           --anything else----------------'            --reply--> deliverReply      (an open request must match)
//                                                       --else---> deliverRequest    (opens one if it has an id)
//                                                       --nobody there--> reportBrokenPath

#include "routing/router.h"

#include <algorithm>
#include <utility>

#include "kl/description.h"
#include "routing/frame_headers.h"
#include "routing/sub_paths.h"

namespace loader {
namespace {

using Ids = std::vector<unsigned int>;

Ids idsOf(Path path) {
  Ids ids(path.size());
  for (unsigned int i = 0; i < path.size(); ++i) ids[i] = path[i];
  return ids;
}

Ids inFrontOf(unsigned int first, Ids rest) {
  rest.insert(rest.begin(), first);
  return rest;
}

kl::message errorAbout(const Ids& unreached, const Ids& returnPath, unsigned int code,
                       const std::string& text = {}) {
  kl::message m = kl::errorMsg(code, text);
  m.insert(kl::SYS_TO, returnPath);
  m.insert(kl::SYS_FROM, unreached);
  return m;
}

// Besides its table of services.
bool isHandlerOfLoader(unsigned int handler) {
  return handler == kl::HANDLER_DESCRIPTION || handler == kl::LOADER_REQUESTS ||
         handler == kl::LOADER_CRASHES || handler == kl::LOADER_TRAFFIC;
}

bool isWellFormedMulti(Path path) {
  SubPaths walk(path);
  for (Path ignored; walk.next(ignored);) {
  }
  return walk.ok();
}

void makeAcquainted(Service& one, Service& other) {
  if (!one.isConfigured) one.acquaintances.add(other.id);
  if (!other.isConfigured) other.acquaintances.add(one.id);
}

}  // namespace

const char* Router::route(Service& sender, std::span<const unsigned char> body) {
  Progress progress;
  const char* fault = route(sender, body, progress);
  while (progress.isUnfinished) fault = route(sender, body, progress);
  return fault;
}

const char* Router::route(Service& sender, std::span<const unsigned char> body, Progress& progress) {
  Envelope e;
  if (const char* fault = readEnvelope(body, e)) return fault;
  if (!progress.isUnfinished) noteFrame(sender, e);
  const Path path = e.path();
  if (!progress.isUnfinished && path[0] != kl::PATH_MULTI) keepHeader(sender, e, path[0]);
  else noted_ = FrameRing::kNone;
  if (e.isControl) {
    const bool isForLoader = path.size() == 1 && path[0] == kl::SERVICE_LOADER;
    return isForLoader ? handleControl(sender, e) : "sent a control message for somebody else";
  }
  switch (path[0]) {
    case kl::PATH_ALL: deliverToAll(sender, e, progress); break;
    case kl::PATH_MULTI: deliverToEach(sender, e, progress); break;
    default: deliver(sender, e, path); break;
  }
  return nullptr;
}

void Router::noteFrame(Service& sender, const Envelope& e) const {
  sender.lastActive = sender.lastSent = now_.seconds;
  ++sender.traffic.messagesOut;
  sender.traffic.bytesOut += kl::FRAME_PREFIX_BYTES + e.body.size();
  if (witness_ != nullptr) [[unlikely]]
    witness_->onFrame(sender, e);
}

void Router::keepHeader(const Service& sender, const Envelope& e, unsigned int to) {
  if (ring_ != nullptr) noted_ = ring_->add(headerOf(e, sender.id, to));
}

void Router::onServiceGone(Service& gone) {
  gone.bornAt = 0;
  breakPathsTo(gone);
  forgetRequestsOf(gone);
  subscriptions_.forgetSubscriber(gone);
  ends_.add(gone);
}

void Router::onServiceLeft(Service& left) {
  const OpenRequest* request = nullptr;
  while ((request = requests_.oldestTo(left)) != nullptr && !request->isHeld) breakOldestTo(left, *request);
  forgetRequestsOf(left);
  outbox_.forget(left);
  left.out.clear();
  left.held.keepForNextProcess();
  outbox_.recount(left);
}

void Router::breakPathsTo(Service& callee) {
  breakRequestsTo(callee);
  outbox_.forget(callee);
  callee.out.clear();
  callee.held.clear();
  outbox_.recount(callee);
  subscriptions_.forgetProvider(callee);  // its process is gone, or what it was sent never reached it
}

void Router::breakRequestsTo(Service& callee) {
  while (const OpenRequest* request = requests_.oldestTo(callee)) breakOldestTo(callee, *request);
}

void Router::breakOldestTo(Service& callee, const OpenRequest& request) {
  if (request.expectsReply) answerOpen(request, kl::ERROR_BRKPATH);
  requests_.forgetOldestTo(callee);
}

void Router::forgetRequestsOf(Service& caller) {
  while (requests_.oldestFrom(caller) != nullptr) requests_.forgetOldestFrom(caller);
}

// Codes that are unknown are passed over: a newer service must be able to talk to this loader.
const char* Router::handleControl(Service& sender, const Envelope& e) {
  if (e.control == kl::CTRL_HELLO) return "sent a second registration";
  calls_.onControl(sender, e);
  return nullptr;
}

// A service that registers while the frame is on its way gets a copy if its turn is still to come.
void Router::deliverToAll(Service& sender, const Envelope& e, Progress& progress) {
  const Path rest = e.path().withoutFirst();
  const ServiceTable::Map& all = table_.all();
  for (auto at = all.lower_bound(progress.next); at != all.end(); ++at) {
    if (outbox_.work().isSpent() && at->first > progress.next) {  // R5
      progress = {true, at->first, false};
      return;
    }
    Service& to = *at->second;
    if (to.isConnected() && &to != &sender) deliverCopy(sender, e, to, rest);
  }
  progress = {};
}

// The loader takes one copy of a frame: it works on a request at once, and thousands in one frame would keep all
// others waiting.  A sender that this request has ended says nothing more.
void Router::deliverToEach(Service& sender, const Envelope& e, Progress& progress) {
  const Path all = e.path();
  if (!progress.isUnfinished && !isWellFormedMulti(all)) return;
  SubPaths walk(all, std::max(1U, progress.next));
  for (Path path; sender.isConnected() && walk.next(path);) {
    if (path[0] != kl::SERVICE_LOADER || !std::exchange(progress.hasReachedLoader, true)) {
      keepHeader(sender, e, path[0]);
      deliver(sender, e, path);
    }
    if (!outbox_.work().isSpent() || walk.left() == 0) continue;
    progress.isUnfinished = true;  // R5
    progress.next = all.size() - walk.left();
    return;
  }
  progress = {};
}

void Router::deliver(Service& sender, const Envelope& e, Path path) {
  if (path[0] == kl::SERVICE_LOADER) return deliverToLoader(sender, e, path);
  Service* to = table_.find(path[0]);
  const bool isHeld = to != nullptr && to->isHeldFor;
  const bool isTaken = to != nullptr && (to->isConnected() || (isHeld && !e.isReply() && !e.isErrorNotice()));
  if (!isTaken) return reportBrokenPath(sender, e, path);
  deliverCopy(sender, e, *to, path.withoutFirst());
  if (!isHeld) return;
  noteFate(Fate::kHeld);
  reportNeed(*to, e);
}

// Replies, notices of deaths and what is sent to all wait until somebody needs the service.
void Router::reportNeed(Service& to, const Envelope& e) {
  if (e.isReply() || e.isErrorNotice() || e.command == kl::CMD_DISCONNECTED || to.held.empty()) return;
  calls_.onNeeded(to);
}

// Handler 0 is the loader's table of services, so it need not be named.
void Router::deliverToLoader(Service& sender, const Envelope& e, Path path) {
  if (e.isReply() && e.hasRequestId && calls_.onOwnAnswer) calls_.onOwnAnswer(sender, e.requestId);
  if (e.isReply() || e.isErrorNotice()) return;
  const Path inside = path.withoutFirst();
  const bool isForTable = inside.size() == 0 || (inside.size() == 1 && inside[0] == 0);
  const bool isForOther = inside.size() == 1 && isHandlerOfLoader(inside[0]);
  if (!isForOther && !isForTable) return reportBrokenPath(sender, e, path);
  Service* own = table_.find(kl::SERVICE_LOADER);
  const Access access = Access::decide(sender.rights, e, own != nullptr ? own->rules : DestinationRules());
  if (access.isDenied()) return deny(sender, e, kl::SERVICE_LOADER, inside, access);
  if (e.wantsAnswer() && !outbox_.canAnswer(sender))
    return refuse(sender, e, kl::SERVICE_LOADER, inside, kl::ERROR_BUSY);
  scratch_.clear();
  appendDelivered(scratch_, e, isForOther ? inside : Path(), sender.id, access.mark);
  const std::span<const unsigned char> body = scratch_.bytes().subspan(kl::FRAME_PREFIX_BYTES);
  if (own != nullptr) {
    ++own->traffic.messagesIn;
    own->traffic.bytesIn += scratch_.size();
    own->senders.add(sender.id, scratch_.size());
    if (e.command == kl::CMD_DISCONNECTED && isForTable)
      forgetEndedSubscriptions(sender, e, *own, Path(), access);
  }
  calls_.onOwnRequest(sender, kl::message(body.data(), static_cast<unsigned int>(body.size())));
}

void Router::deliverCopy(Service& sender, const Envelope& e, Service& to, Path rest) {
  if (e.isReply()) deliverReply(sender, e, to, rest);
  else deliverRequest(sender, e, to, rest);
}

// A message to all keeps nobody from leaving.
void Router::noteActivity(const Envelope& e, Service& to) const {
  if (e.path()[0] != kl::PATH_ALL) to.lastActive = now_.seconds;
}

// A reply that its caller has no room for becomes a short one that says so.
void Router::deliverReply(Service& sender, const Envelope& e, Service& to, Path rest) {
  noteActivity(e, to);
  if (!e.hasRequestId || !requests_.take(to, sender, e.requestId, rest)) return noteFate(Fate::kStray);  // R2
  if (outbox_.deliver(to, sender, e, rest, Urgency::kReply)) return;
  noteFate(Fate::kLost);
  sendError(to, errorAbout(inFrontOf(sender.id, idsOf(e.returnPath())), idsOf(rest), kl::ERROR_BUSY), e);
}

// A request is refused before it is worked on when there is no room for it, or for its reply.  The receiver of a reply
// has asked before, so requests and notifications alone make acquaintances.
void Router::deliverRequest(Service& sender, const Envelope& e, Service& to, Path rest) {
  const bool isWanted = receiverHasSubscribed(sender, e, to, rest);
  const Access access =
      isWanted ? Access::ofNotification(sender.rights) : Access::decide(sender.rights, e, to.rules);
  if (access.isDenied()) return deny(sender, e, to.id, rest, access);
  noteActivity(e, to);
  makeAcquainted(sender, to);
  const auto hasRoom = [&] {
    return !outbox_.isFull(to, sender) && outbox_.canAnswer(sender) &&
           outbox_.hasRoomFor(to, kl::FRAME_PREFIX_BYTES + e.body.size(), Urgency::kOrdinary);
  };
  if (e.wantsAnswer() && !hasRoom()) return refuse(sender, e, to.id, rest, kl::ERROR_BUSY);
  if (e.isTracked() && !makeRoom(sender)) return refuse(sender, e, to.id, rest, kl::ERROR_BUSY);
  if (e.isSubscribe()) return deliverSubscribe(sender, e, to, rest, access);
  if (!outbox_.deliver(to, sender, e, rest, Urgency::kOrdinary, access.mark)) return noteFate(Fate::kLost);
  if (e.isTracked()) noteOpen(sender, e, to, rest);
  if (e.isCommand()) forgetEndedSubscriptions(sender, e, to, rest, access);
}

void Router::noteOpen(Service& sender, const Envelope& e, Service& to, Path rest) {
  requests_.add(sender, to, e, rest, now_);
  const bool isInChain = sender.requests.servingCount != 0 && to.requests.madeCount != 0;
  if (isInChain && calls_.onChain) calls_.onChain();
}

// R4.  The frame is judged in this one of its copies.
bool Router::receiverHasSubscribed(Service& sender, const Envelope& e, Service& to, Path rest) const {
  return e.mayNotify() && subscriptions_.has({sender, e.returnPath(), to, rest, e.command});
}

// A refused subscription is not delivered either: its provider would know a subscriber that the table does not.
void Router::deliverSubscribe(Service& sender, const Envelope& e, Service& to, Path rest,
                              const Access& access) {
  const auto outcome = subscriptions_.add(to, rest, sender, e.returnPath(), e.body);
  if (outcome == Subscriptions::Outcome::kRefused) return noteFate(Fate::kBusy);
  const bool isDelivered = outbox_.deliver(to, sender, e, rest, Urgency::kOrdinary, access.mark);
  if (!isDelivered) noteFate(Fate::kLost);
  if (!isDelivered && outcome == Subscriptions::Outcome::kAdded)
    subscriptions_.remove(to, rest, sender, e.returnPath(), e.body);
}

// A message that ends subscriptions at their provider ends them here.
void Router::forgetEndedSubscriptions(Service& sender, const Envelope& e, Service& to, Path rest,
                                      const Access& access) {
  if (e.command == kl::CMD_UNSUBSCRIBE) subscriptions_.remove(to, rest, sender, e.returnPath(), e.body);
  const bool isObeyed = (access.bits & kl::RIGHT_OF_NOBODY) != 0;
  if (e.command == kl::CMD_DISCONNECTED && isObeyed)
    subscriptions_.forgetBehind(to, rest, sender, e.returnPath());
}

// True when the caller may have one more open request.
bool Router::makeRoom(Service& caller) {
  const bool isInLimits = caller.account == nullptr || caller.account->hasRoomFor(Resource::kRequests, 1);
  if (caller.requests.madeCount < kMaxOpenRequests && isInLimits) return true;
  const OpenRequest* oldest = requests_.oldestFrom(caller);
  if (oldest == nullptr || now_.seconds - oldest->since.seconds <= kOldSeconds) return false;
  answerOpen(*oldest, kl::ERROR_TIMEOUT);
  requests_.forgetOldestFrom(caller);
  return true;
}

void Router::reportBrokenPath(Service& sender, const Envelope& e, Path path) {
  noteFate(Fate::kNobody);
  if (e.isReply() || e.isErrorNotice()) return;  // R3
  kl::message m = errorAbout(idsOf(path), idsOf(e.returnPath()), kl::ERROR_BRKPATH);
  if (e.expectsReply) m.insert(kl::SYS_TYPE, kl::TYPE_REPLY);
  if (e.expectsReply && e.hasRequestId) m.insert(kl::SYS_REQID, e.requestId);
  (void)outbox_.send(sender, m, e.expectsReply ? Urgency::kNotice : Urgency::kOrdinary);
}

void Router::refuse(Service& sender, const Envelope& e, unsigned int toId, Path rest, unsigned int code,
                    const std::string& text) {
  noteFate(Fate::kBusy);
  sendError(sender, errorAbout(inFrontOf(toId, idsOf(rest)), idsOf(e.returnPath()), code, text), e);
}

// Sends an error as the reply to what `e` is or answers.
void Router::sendError(Service& to, kl::message m, const Envelope& e) {
  m.insert(kl::SYS_TYPE, kl::TYPE_REPLY);
  if (e.hasRequestId) m.insert(kl::SYS_REQID, e.requestId);
  (void)outbox_.send(to, m, Urgency::kNotice);
}

// A request without an answer is dropped without a word to its sender.
void Router::deny(Service& sender, const Envelope& e, unsigned int toId, Path rest, const Access& access) {
  noteFate(Fate::kDenied);
  ++sender.traffic.denials;
  if (calls_.onDenied) calls_.onDenied(sender, e, toId, rest, access);
  if (e.wantsAnswer()) refuse(sender, e, toId, rest, kl::ERROR_NOTALLOWED, access.reason());
}

void Router::answerOpen(const OpenRequest& request, unsigned int code) {
  if (!request.caller->isConnected()) return;
  kl::message m =
      errorAbout(inFrontOf(request.callee->id, request.path.ids()), request.returnPath.ids(), code);
  m.insert(kl::SYS_TYPE, kl::TYPE_REPLY);
  m.insert(kl::SYS_REQID, request.id);
  (void)outbox_.send(*request.caller, m, Urgency::kNotice);
}

}  // namespace loader
