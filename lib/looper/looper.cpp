// The message loop of a process and its handlers: how a message finds its way.
//
// A message goes out with sendMessage: the handler puts its number in front of SYS_FROM, and the Looper looks
// at the first hop of SYS_TO:
//
//     none         into the queue of this process, as it is
//     PATH_SELF    into the queue; the way back begins with PATH_SELF
//     PATH_ALL     to the loader, and as PATH_SELF
//     PATH_MULTI   sub-paths that begin with PATH_SELF as PATH_SELF, the others together to the loader
//     any other    to the loader
//
// A message comes in from the loader's socket (onMsgSock) or from the queue, which is emptied before the loop
// sleeps.  dispatchMessage takes the first hop off and gives the message to the handler of that number, whose
// handle() carries it out and replies.  A message whose path names no handler is the Looper's own or has a broken path.
//
// L1  at most 100 messages wait in the queue
// L2  one request a wake-up: reading goes on after replies and filtered messages, and ends after a request
//     or a control message
// L3  while bytes are held that were read ahead, the loop knows it (setReadAhead) and does not sleep on them
// L4  a walk over the handlers goes by their numbers, so they may come and go meanwhile
// L5  while frames that were read ahead wait, run() holds back what is sent and lets it leave together; where none waits
//     any more, nothing is held
// H1  a handler may be destroyed by its own operation: behind a call of one, nothing of it is touched before its
//     Liveness was asked

#include "kl/looper.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <utility>

#include "base/assertions.h"
#include "base/report.h"
#include "kl/backtrace.h"
#include "kl/services.h"
#include "looper/connection.h"
#include "looper/description.h"
#include "looper/first_start.h"
#include "looper/framing.h"
#include "looper/liveness.h"
#include "looper/paths.h"
#include "looper/subscription_index.h"

namespace kl {
namespace {

constexpr std::size_t kQueueLimit = 100;
constexpr int kReadyTicks = 1000;  // how long the loader may take to confirm

constexpr char kDispatchLabel[] = "virtual void kl::Looper::dispatchMessage(kl::message&)";

Looper* theLooper = nullptr;

// The command whose reply is being sent, for the line about one that is too big; BADID while none is.
unsigned int answeredCommand = BADID;

using ObjectCommand = message (Handler::*)(const message&, unsigned int);

message onObject(Handler& handler, const message& request, ObjectCommand command) {
  const unsigned int* const id = request.get_u32_ref(STD_ID);
  return id ? (handler.*command)(request, *id) : errorMsg(ERROR_UNKNOWNID, "");
}

// False for a request that gets no reply.
bool addressReply(message& reply, const message& request) {
  unsigned int id = BADID;
  if (!getRequestID(request, &id)) return false;
  setRequestID(reply, id);
  setType(reply, TYPE_REPLY);
  reply.insert(SYS_TO, pathOf(request, SYS_FROM));
  return true;
}

// H1
void sendReply(const Liveness& sender, const message& request, message& reply) {
  if (!addressReply(reply, request)) return;
  answeredCommand = request.get(SYS_CMD, CMD_NOOP);
  if (Handler* const handler = sender.handler()) {
    handler->sendMessage(reply);
  } else {
    KL_ASSERT(theLooper != nullptr);
    prependSender(reply, sender.number());
    theLooper->sendMessage(reply);
  }
  answeredCommand = BADID;
}

unsigned int flattenedLength(const message& m) { return static_cast<unsigned int>(m.flattened().size()); }

std::string describeSender(const message& m) {
  const Path& from = pathOf(m, SYS_FROM);
  return from.empty() ? "the loop itself" : "handler " + decimal(from.front());
}

std::string describeCommand(unsigned int command) {
  char text[sizeof "command 0x12345678"];
  (void)std::snprintf(text, sizeof text, "command 0x%x", command);
  return text;
}

}  // namespace

Looper* getLooper() { return theLooper; }

// --- Handler -------------------------------------------------------------------------------------

Handler::Handler() = default;

// All pointers to the handler go with it: the timers of open requests and of gathered changes, and an entry in the
// table that its owner forgot to remove.  H1
Handler::~Handler() {
  Liveness::end(*this);
  if (!theLooper) return;
  for (const auto& [id, post] : replyHandlers_) theLooper->removeTimer(post.timer);
  theLooper->removeTimer(batchTimer_);
  std::erase_if(theLooper->handlers_, [this](const auto& entry) { return entry.second == this; });
}

void Handler::handle(const message& m) {
  if (isReply(m)) return handleReply(m);
  if (unsigned int code = ERROR_OK; !m.has(SYS_CMD) && isError(m, &code)) {
    if (code == ERROR_BRKPATH) handleBrkpath(m);
    return;
  }
  const unsigned int command = m.get(SYS_CMD, CMD_NOOP);
  const Liveness self(*this);
  if (command == CMD_GETPOLICIES) {
    message reply = cmdGetPolicies(m);
    sendReply(self, m, reply);
  } else if (!checkPolicy(m)) {
    message reply = errorMsg(ERROR_NOTALLOWED, "");
    sendReply(self, m, reply);
  } else if (!self.ended()) {
    handleCmd(m, command);
  }
}

void Handler::handleBrkpath(const message&) {}

void Handler::handleCmd(const message& request, unsigned int command) {
  switch (command) {
    case CMD_SUBSCRIBE: return cmdSubscribe(request);
    case CMD_UNSUBSCRIBE: return cmdUnsubscribe(request);
    case CMD_DISCONNECTED: return cmdDisconnected(request);
    default: break;
  }
  const Liveness self(*this);
  message reply = carryOut(request, command);
  sendReply(self, request, reply);
}

message Handler::cmdGetPolicies(const message& request) { return policies_.get_policies(request); }
message Handler::cmdGet(const message&) { return errorMsg(ERROR_NOTIMP, ""); }
message Handler::cmdSet(const message&) { return errorMsg(ERROR_NOTIMP, ""); }
message Handler::cmdReset(const message&) { return errorMsg(ERROR_NOTIMP, ""); }
message Handler::cmdGetObj(const message&, unsigned int) { return errorMsg(ERROR_NOTIMP, ""); }
message Handler::cmdSetObj(const message&, unsigned int) { return errorMsg(ERROR_NOTIMP, ""); }
message Handler::cmdGetAll(const message&, unsigned int, unsigned int) { return errorMsg(ERROR_NOTIMP, ""); }
message Handler::cmdAddObj(const message&) { return errorMsg(ERROR_NOTIMP, ""); }
message Handler::cmdRemoveObj(const message&, unsigned int) { return errorMsg(ERROR_NOTIMP, ""); }
message Handler::cmdMoveObj(const message&, unsigned int) { return errorMsg(ERROR_NOTIMP, ""); }
message Handler::cmdGetCount(const message&) { return errorMsg(ERROR_NOTIMP, ""); }
message Handler::cmdUnknown(const message&, unsigned int) { return errorMsg(ERROR_NOTIMP, ""); }
void Handler::cmdShutdown(const message&) {}

void Handler::subscribed(const message&) {}
void Handler::unsubscribed(const message&) {}
void Handler::notifiesSent() {}
message Handler::getObject(unsigned int) { return {}; }

bool Handler::checkPolicy(const message& request) { return policies_.is_allowed(request); }

void Handler::sendMessage(message& m) {
  Looper* const looper = getLooper();
  KL_ASSERT(looper != nullptr);
  prependSender(m, id_);
  looper->sendMessage(m);
}

message Handler::exchangeMessage(message& m, int timeout) {
  Looper* const looper = getLooper();
  KL_ASSERT(looper != nullptr);
  prependSender(m, id_);
  return looper->exchangeMessage(m, timeout);
}

void Handler::replyMessage(const message& request, message reply) {
  sendReply(Liveness(*this), request, reply);
}

void Handler::replyError(const message& request, unsigned int code, const std::string& text) {
  replyMessage(request, errorMsg(code, text));
}

bool Handler::fits(const message& m) const {
  return m.max_length() + kSenderBytes <= FRAME_MOST_BYTES || sentLength(m) <= FRAME_MOST_BYTES;
}

bool Handler::fits(const message& request, message reply) const {
  (void)addressReply(reply, request);
  return fits(reply);
}

// The length with this handler's number in SYS_FROM; the Looper has none.
unsigned int Handler::sentLength(const message& m) const {
  if (this == theLooper) return flattenedLength(m);
  message sent(m);
  prependSender(sent, id_);
  return flattenedLength(sent);
}

void Handler::sendBrkpath(const message& m) {
  message notice = errorMsg(ERROR_BRKPATH, "");
  notice.insert(SYS_FROM, pathOf(m, SYS_TO));
  notice.insert(SYS_TO, pathOf(m, SYS_FROM));
  sendMessage(notice);
}

// The commands that are answered.
message Handler::carryOut(const message& request, unsigned int command) {
  switch (command) {
    case CMD_NOOP: return {};
    case CMD_GETOBJ: return onObject(*this, request, &Handler::cmdGetObj);
    case CMD_SETOBJ: return onObject(*this, request, &Handler::cmdSetObj);
    case CMD_GETALL:
      return cmdGetAll(request, request.get(STD_GETALLID, BADID), request.get(STD_GETALLNO, 0));
    case CMD_ADDOBJ: return cmdAddObj(request);
    case CMD_REMOVEOBJ: return onObject(*this, request, &Handler::cmdRemoveObj);
    case CMD_MOVEOBJ: return onObject(*this, request, &Handler::cmdMoveObj);
    case CMD_SHUTDOWN: cmdShutdown(request); return {};
    case CMD_GET: return cmdGet(request);
    case CMD_SET: return cmdSet(request);
    case CMD_GETCOUNT: return cmdGetCount(request);
    case CMD_RESET: return cmdReset(request);
    default: return cmdUnknown(request, command);
  }
}

// --- Looper: beginning and end ---------------------------------------------------------------------

Looper::Looper(unsigned int mode, unsigned int a1, unsigned int a2, unsigned int a3, unsigned int a4,
               unsigned int a5, unsigned int a6, unsigned int a7, unsigned int a8, unsigned int a9,
               unsigned int a10, unsigned int a11, unsigned int a12) {
  addBeforeSleep(this, bind<Looper, &Looper::dispatchQueue>());
  theLooper = this;
  socket_ = openLoaderSocket(mode);
  frames_ = std::make_unique<FrameSocket>(socket_);
  addSocket(socket_, this, bind<Looper, &Looper::onMsgSock>(), POLLIN);
  registerProcess({a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12});
  awaitReady();
}

Looper::~Looper() {
  flushMessages();
  if (socket_ != -1) ::close(socket_);
  theLooper = nullptr;
}

// Kept on purpose: the descriptor is forgotten and not closed, so the loader sees the process as connected
// until it has ended.  Held by LooperEnd.AfterShutdownTheConnectionStaysOpen.
void Looper::shutdown() {
  flushMessages();
  Runner::shutdown();
  stop_ = true;
  socket_ = -1;
}

void Looper::run() {
  const std::string marker = firstStartMarker();
  if (!hasMarker(marker)) {
    onInit();
    leaveMarker(marker);
  }
  sendCtrl(CTRL_RUNNING);
  notifySubscriptions();
  unblockLeave();
  frames_->beginHolding();  // L5
  Runner::run();
  frames_->endHolding();
}

void Looper::onInit() {}

void Looper::registerProcess(const std::vector<unsigned int>& values) {
  message m;
  m.insert(SYS_TO, {SERVICE_LOADER});
  m.insert(SYS_CTRL, CTRL_HELLO);
  m.insert(REGISTRATION_VALUES, values);
  sendMessage(m);
}

void Looper::awaitReady() {
  message ready;
  unsigned int code = 0;
  if (!readMessage(ready, kReadyTicks) || !isCtrl(ready, &code) || code != CTRL_READY) {
    printErrorLine("could not receive confirmation to CTRL_READY from loader");
    std::abort();
  }
  loaderValues_[0] = ready.get(READY_ID, 0);
  loaderValues_[1] = ready.get(READY_VERSION, 0);
  loaderValues_[2] = ready.get(READY_STARTS, 0);
  if (ready.has(READY_DATA)) loadPermData(message(ready.get(READY_DATA, {})));
  if (ready.has(READY_CONFIGURATION)) loaderData_ = ready.get(READY_CONFIGURATION, {});
}

unsigned int Looper::getLoaderValue(unsigned int n) const {
  return n >= 1 && n <= std::size(loaderValues_) ? loaderValues_[n - 1] : 0;
}

// --- Looper: the handlers --------------------------------------------------------------------------

bool Looper::addHandler(unsigned int id, Handler* handler) {
  KL_ASSERT(handler != nullptr);
  if (!handlers_.insert({id, handler}).second) return false;
  handler->id_ = id;
  const auto data = pendingPermData_.extract(id);
  if (!data) return true;
  const Liveness added(*handler);
  handler->loadPermData(data.mapped());
  if (!added.ended()) handler->notifySubscriptions();
  return true;
}

bool Looper::removeHandler(unsigned int id) { return handlers_.erase(id) != 0; }

bool Looper::hasHandler(unsigned int id) const { return handlers_.contains(id); }

void Looper::handleCmd(const message& request, unsigned int command) {
  if (command == SYSTEM_TIMEZONE_CHANGED) timezone_ = static_cast<int>(request.get(SYSTEM_TIMEZONE, 0));
  else Handler::handleCmd(request, command);
}

void Looper::cmdDisconnected(const message& m) {
  Handler::cmdDisconnected(m);
  for (auto entry = handlers_.begin(); entry != handlers_.end();) {  // L4
    const unsigned int id = entry->first;
    entry->second->cmdDisconnected(m);
    entry = handlers_.upper_bound(id);
  }
}

// --- Looper: the way out ---------------------------------------------------------------------------

void Looper::sendMessage(message& m) {
  if (!hasPath(m, SYS_TO)) return queueMessage(m);
  switch (firstHop(m)) {
    case PATH_SELF: return deliverLocally(m);
    case PATH_ALL: writeMessage(m); return deliverLocally(m);
    case PATH_MULTI: return sendMulti(m);
    default: return writeMessage(m);
  }
}

void Looper::deliverLocally(message& m) {
  removeFirstHop(m);
  prependSender(m, PATH_SELF);
  queueMessage(m);
}

// A malformed list of sub-paths loses the message from there on, without notice.
void Looper::sendMulti(message& m) {
  const Path all = pathOf(m, SYS_TO);
  Path rest{PATH_MULTI};
  for (std::size_t i = 1; i < all.size();) {
    const std::size_t count = all[i];
    if (count == 0 || count > all.size() - i - 1) return;
    const auto begin = all.begin() + static_cast<std::ptrdiff_t>(i);
    const auto end = begin + static_cast<std::ptrdiff_t>(count) + 1;
    if (all[i + 1] == PATH_SELF) {
      message copy(m);
      copy.insert(SYS_TO, Path(begin + 1, end));
      sendMessage(copy);
    } else {
      rest.insert(rest.end(), begin, end);
    }
    i += count + 1;
  }
  if (rest.size() == 1) return;
  if (rest.size() != all.size()) m.insert(SYS_TO, rest);
  writeMessage(m);
}

void Looper::queueMessage(const message& m) {
  if (filterMessage(m)) return;
  if (queue_.size() >= kQueueLimit) return reportFullQueue();  // L1
  queue_.push_back(m);
}

void Looper::reportFullQueue() const {
  printErrorLine("full queue:");
  printErrorLine(std::string(52, '#'));
  for (const message& m : queue_) m.dump2(std::cout, "", 0);
}

void Looper::writeMessage(const message& m) {
  if (socket_ == -1) return;
  const unsigned int length = frames_->writeFrame(m);
  if (length > FRAME_MOST_BYTES && reportsTooBig_) refuseTooBig(m, length);
}

void Looper::refuseTooBig(const message& m, unsigned int length) {
  const bool reply = isReply(m);
  const unsigned int command = reply ? answeredCommand : m.get(SYS_CMD, CMD_NOOP);
  printErrorLine(
      "LOOPER: too big for a frame, not sent: " + std::string(reply ? "reply of " : "message of ") +
      describeSender(m) + (command == BADID ? "" : ", " + describeCommand(command)) + ", " + decimal(length) +
      " bytes");
  if (!reply) return;
  message error = errorMsg(ERROR_TOOBIG, "");
  if (unsigned int id = BADID; getRequestID(m, &id)) setRequestID(error, id);
  setType(error, TYPE_REPLY);
  error.insert(SYS_TO, pathOf(m, SYS_TO));
  error.insert(SYS_FROM, pathOf(m, SYS_FROM));
  frames_->writeFrame(error);
}

void Looper::writeRaw(const unsigned char* bytes, unsigned int count) { frames_->write(bytes, count); }

void Looper::flushMessages() { frames_->writeHeld(); }

void Looper::sendCtrl(unsigned int code, unsigned int argument) {
  message m;
  m.insert(SYS_TO, {SERVICE_LOADER});
  m.insert(SYS_CTRL, code);
  m.insert(SYS_CTRL_ARG, argument);
  sendMessage(m);
}

void Looper::sendCtrl(unsigned int code) {
  message m;
  m.insert(SYS_TO, {SERVICE_LOADER});
  m.insert(SYS_CTRL, code);
  sendMessage(m);
}

// --- Looper: the way in ----------------------------------------------------------------------------

void Looper::onMsgSock(int, unsigned int) {
  while (takeMessage()) {
  }
  if (!frames_->holdsFrame()) flushMessages();  // L5
}

// Takes one message off the socket; true when the next one may follow at once.  L2
bool Looper::takeMessage() {
  message m;
  Timeout atOnce(0);
  if (!readMessage(m, atOnce)) return false;
  if (unsigned int code = 0; isCtrl(m, &code)) {
    handleCtrl(code);
    return false;
  }
  if (filterMessage(m)) return true;
  const bool reply = isReply(m);
  dispatchMessage(m);
  return reply;
}

void Looper::dispatchQueue() {
  while (!queue_.empty()) {
    message m;
    m.swap(queue_.front());
    queue_.pop_front();
    dispatchMessage(m);
  }
}

bool Looper::filterMessage(const message&) { return false; }

void Looper::dispatchMessage(message& m) {
  const MessageBacktraceInfo inFlight(kDispatchLabel, m);
  if (!hasPath(m, SYS_TO)) return handle(m);
  const auto entry = handlers_.find(firstHop(m));
  if (entry != handlers_.end()) {
    removeFirstHop(m);
    deliverTo(*entry->second, m);
  } else if (asksForDescription(m)) {
    replyMessage(m, describeProcess(m, accessPolicies()));
  } else {
    deliverTo(*this, m);
  }
}

// A path that goes on behind a terminal handler leads nowhere.
void Looper::deliverTo(Handler& handler, message& m) {
  if (handler.terminal_ && hasPath(m, SYS_TO)) breakPath(handler, m);
  else handler.handle(m);
}

void Looper::breakPath(Handler& handler, const message& m) {
  if (unsigned int code = ERROR_OK; isError(m, &code) && code == ERROR_BRKPATH) return;
  if (isReplyExpected(m)) handler.replyError(m, ERROR_BRKPATH, "");
  else handler.sendBrkpath(m);
}

bool Looper::readMessage(message& m, int timeout) {
  flushMessages();
  Timeout limit(timeout);
  return readMessage(m, limit);
}

// After shutdown there is nothing to read from.  L3
bool Looper::readMessage(message& m, Timeout& timeout) {
  if (socket_ == -1) return false;
  const bool found = frames_->readFrame(m, timeout);
  declareReadAhead();
  return found;
}

unsigned int Looper::readRaw(unsigned char* bytes, unsigned int count, int timeout) {
  flushMessages();
  Timeout limit(timeout);
  const unsigned int got = frames_->read(bytes, count, limit);
  declareReadAhead();
  return got;
}

void Looper::declareReadAhead() {
  if (frames_->holdsBytes() == readsAhead_) return;
  readsAhead_ = !readsAhead_;
  setReadAhead(socket_, readsAhead_);
}

}  // namespace kl
