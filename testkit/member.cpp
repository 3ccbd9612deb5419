// A peer and its mail: it files replies and notifications, and lets its scripts answer requests.

#include "testkit/member.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "kl/conventions.h"
#include "kl/records.h"
#include "testkit/bus.h"
#include "testkit/wire.h"

namespace kl::test {
namespace {

constexpr std::size_t kMagicBytes = 2;

std::string nameOf(unsigned int command) {
  char text[sizeof "command 0x12345678"];
  (void)std::snprintf(text, sizeof text, "command 0x%x", command);
  return text;
}

// The requests of one subscription differ in their command and in what they have beside it.
bool isSameSubscription(const message& a, const message& b) {
  message one(a);
  message other(b);
  one.remove(SYS_CMD);
  other.remove(SYS_CMD);
  return one == other;
}

}  // namespace

Member::Member(Bus& bus, unsigned int id) : bus_(bus), row_(&bus.join(*this, id)), id_(row_->id) {}

void Member::end() {
  mail_.clear();
  if (row_ != nullptr) bus_.part(*std::exchange(row_, nullptr));
}

// As the loader makes it once for a user: SYS_USER and SYS_POLICY stand behind each request, in the bytes of a message
// that has only them.  Root is asked nothing.
void Member::setUser(const std::string& user, unsigned int rights) {
  if (row_ == nullptr) return;
  const bool isTrusted = user == "root" && rights == RIGHTS_ALL;
  message m;
  m.insert(SYS_USER, user);
  if (!isTrusted) m.insert(SYS_POLICY, rights);
  const auto bytes = m.flattened();
  const std::vector<unsigned char> records(bytes.begin() + kMagicBytes, bytes.end());
  if (isTrusted) row_->rights = {true, records, {}};
  else
    row_->rights = {
        false, {}, {{rights == 0 ? loader::Rights::nothing() : loader::Rights::of(rights), records}}};
}

void Member::send(const message& m) {
  if (row_ != nullptr) bus_.route(*row_, m);
}

unsigned int Member::request(const Peer::Path& to, unsigned int command, const message& body) {
  message m(body);
  const unsigned int id = nextRequest_++;
  m.insert(SYS_TO, to);
  m.insert(SYS_CMD, command);
  setType(m, TYPE_REQUEST);
  setRequestID(m, id);
  m.insert(SYS_REPLYEXP, true);
  send(m);
  return id;
}

std::optional<message> Member::takeReply(unsigned int request) {
  const auto node = replies_.extract(request);
  if (!node) return {};
  return node.mapped();
}

void Member::reply(const message& request, message body) {
  check(body, "answers " + nameOf(request.get(SYS_CMD, CMD_NOOP)) + " with ");
  unsigned int id = 0;
  if (!getRequestID(request, &id)) return;
  setRequestID(body, id);
  setType(body, TYPE_REPLY);
  body.insert(SYS_TO, request.get(SYS_FROM, {}));
  if (delay_ == 0) send(body);
  else bus_.sendLater(delay_, id_, body);
}

void Member::notify(const message& body) {
  for (const message& subscription : std::vector<message>(subscriptions_)) {
    message m(body);
    m.insert(SYS_CMD, subscription.get(SYS_NOTIFYCMD, CMD_NOTIFY));
    m.insert(SYS_TO, subscription.get(SYS_FROM, {}));
    check(m, "notifies with ");
    send(m);
  }
}

void Member::deliver(std::span<const unsigned char> frames) {
  while (frames.size() >= FRAME_PREFIX_BYTES) {
    const unsigned int length = readLe32(frames.data());
    mail_.emplace_back(frames.data() + FRAME_PREFIX_BYTES, length);
    frames = frames.subspan(FRAME_PREFIX_BYTES + length);
  }
}

bool Member::handleNext() {
  if (mail_.empty()) return false;
  const message m = mail_.front();
  mail_.pop_front();
  try {
    handle(m);
  } catch (...) {
    bus_.keepException();
  }
  return true;
}

void Member::handle(const message& m) {
  unsigned int id = 0;
  if (isReply(m)) {
    if (getRequestID(m, &id)) replies_[id] = m;
    return;
  }
  if (!m.has(SYS_CMD) && isError(m)) return notices.push_back(m);
  handleRequest(m, m.get(SYS_CMD, CMD_NOOP));
}

void Member::handleRequest(const message& request, unsigned int command) {
  const auto& from = request.get(SYS_FROM, {});
  switch (command) {
    case CMD_SUBSCRIBE: return handleSubscription(request, true);
    case CMD_UNSUBSCRIBE: return handleSubscription(request, false);
    case CMD_DISCONNECTED:
      std::erase_if(subscriptions_, [&](const message& m) {
        const auto& subscriber = m.get(SYS_FROM, {});
        return subscriber.size() >= from.size() && std::equal(from.begin(), from.end(), subscriber.begin());
      });
      if (!from.empty()) deaths.push_back(from.front());
      return;
    default: break;
  }
  if (!request.has(SYS_REQID) && !scripts_.contains(command)) return notified.push_back(request);
  asked.push_back(request);
  check(request, "is asked " + nameOf(command) + " with ");
  answer(request, command);
}

void Member::handleSubscription(const message& request, bool begins) {
  asked.push_back(request);
  const auto same = [&](const message& m) { return isSameSubscription(m, request); };
  const bool isThere = std::any_of(subscriptions_.begin(), subscriptions_.end(), same);
  if (begins && !isThere) subscriptions_.push_back(request);
  if (!begins) std::erase_if(subscriptions_, same);
}

// The script may be replaced while it runs, or end its peer.  M2
void Member::answer(const message& request, unsigned int command) {
  const auto found = scripts_.find(command);
  if (found == scripts_.end())
    return reply(request, command == CMD_NOOP ? message() : errorMsg(ERROR_NOTIMP, ""));
  const Peer::Script script = found->second;
  if (!script) return;
  const message body = script(request);
  if (!hasEnded()) reply(request, body);
}

// Errors are the library's words.
void Member::check(const message& m, const std::string& what) const {
  if (!fields_ || isError(m)) return;
  const std::string stranger = fields_->findStranger(m);
  if (!stranger.empty()) bus_.complain("peer " + std::to_string(id_) + " " + what + stranger);
}

}  // namespace kl::test
