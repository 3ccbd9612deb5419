// A message is shown before anything becomes of it, so it stands in front of what the loader says about it.

#include "watch/taps.h"

#include <algorithm>

#include "services/common/tap.h"

namespace loader {
namespace {

std::vector<unsigned int> pathInside(const kl::message& request) {
  std::vector<unsigned int> path = request.get(kl::SYS_FROM, {});
  if (!path.empty()) path.erase(path.begin());
  return path;
}

// A reply's own command does not say which command it answers.
PassingMessage passing(const Envelope& e, unsigned int from, Path path) {
  PassingMessage message(e);
  message.from = from;
  message.path = path;
  if (e.isCommand()) message.command = e.command;
  return message;
}

// As a service would have written it: its path begins with the receiver, and who sends it does not name itself.  Between
// the loader and a process the path is [1] for both.
kl::message::flat_message asWritten(const kl::message& m, unsigned int receiver) {
  kl::message written(m);
  std::vector<unsigned int> to;
  if (!m.has(kl::SYS_CTRL)) to = m.get(kl::SYS_TO, {});
  to.insert(to.begin(), receiver);
  written.insert(kl::SYS_TO, to);
  std::vector<unsigned int> from = m.get(kl::SYS_FROM, {});
  if (!from.empty()) from.erase(from.begin());
  written.remove(kl::SYS_FROM);
  if (!from.empty()) written.insert(kl::SYS_FROM, from);
  return written.flattened();
}

}  // namespace

kl::message Taps::answer(Service& asker, const kl::message& request) {
  const std::vector<unsigned int> path = pathInside(request);
  const auto former =
      std::find_if(taps_.begin(), taps_.end(), [&](const auto& tap) { return tap->isAt(asker, path); });
  if (request.get(common::tap::END, false)) {
    if (former != taps_.end()) taps_.erase(former);
    noteSize();
    return {};
  }
  TapFilter filter;
  if (const std::string fault = filter.read(request); !fault.empty())
    return kl::errorMsg(kl::ERROR_FAILED, fault);
  if (filter.contents() > 0 && !isUnlimited(asker.rights, request))
    return kl::errorMsg(kl::ERROR_NOTALLOWED,
                        "the contents of messages are for root alone, their headers are not");
  if (former == taps_.end() && taps_.size() >= kMost)
    return kl::errorMsg(kl::ERROR_BUSY, "there are " + std::to_string(kMost) + " taps already");
  if (former != taps_.end()) taps_.erase(former);
  taps_.push_back(std::make_unique<Tap>(asker, path, std::move(filter)));
  noteSize();
  return {};
}

void Taps::forget(const Service& service) {
  std::erase_if(taps_, [&](const auto& tap) { return tap->belongsTo(service); });
  noteSize();
}

void Taps::noteSize() {
  tell_(taps_.empty() ? nullptr : this);  // T3
  if (!taps_.empty()) return;
  batchTimer_.cancel();
  ownRequest_.reset();
}

void Taps::onFrame(const Service& sender, const Envelope& e) {
  const Path path = e.path();
  const bool isForLoader = path[0] == kl::SERVICE_LOADER;
  if (isForLoader && isReader(sender)) return;  // T1
  PassingMessage message = passing(e, sender.id, path);
  if (e.isReply() && e.hasRequestId)
    addRequestOf(message, services_.find(path[0]), &sender, path.withoutFirst());
  if (isForLoader && e.isTracked()) ownRequest_ = {sender.id, e.requestId, e.command};
  show(message);
}

void Taps::onOwnMessage(const Service& to, const kl::message& m) {
  if (isSending_ || to.id == kl::SERVICE_LOADER) return;  // T1
  const kl::message::flat_message body = m.flattened();
  Envelope e;
  (void)readEnvelope(body, e);  // a receiver may be no path at all
  const Path from = e.returnPath();
  const unsigned int sender = from.empty() ? kl::SERVICE_LOADER : from[0];
  if (sender == kl::SERVICE_LOADER && isReader(to)) return;  // T1
  const kl::message::flat_message written = asWritten(m, to.id);
  e.body = written;
  PassingMessage message = passing(e, sender, Path());
  message.receiver = to.id;
  message.isByLoader = true;
  if (e.isReply() && e.hasRequestId) addRequestOf(message, &to, services_.find(sender), e.path());
  show(message);
}

void Taps::addRequestOf(PassingMessage& reply, const Service* caller, const Service* callee,
                        Path inside) const {
  if (caller == nullptr || callee == nullptr) return;
  const unsigned int id = reply.envelope.requestId;
  if (callee->id == kl::SERVICE_LOADER) {
    const bool isKnown = ownRequest_ && ownRequest_->caller == caller->id && ownRequest_->id == id;
    if (isKnown) reply.command = ownRequest_->command;
    return;
  }
  const OpenRequest* const request = requests_.find(*caller, *callee, id, inside);
  if (request == nullptr) return;
  reply.command = request->command;
  reply.age = clock_().millisecondsSince(request->since);
}

void Taps::show(const PassingMessage& message) {
  for (const auto& tap : taps_) {
    if (!tap->filter().matches(message)) continue;
    tap->add(message);
    if (!batchTimer_.isRunning()) batchTimer_.start(kBatchTicks);
  }
}

bool Taps::isReader(const Service& service) const {
  return std::any_of(taps_.begin(), taps_.end(), [&](const auto& tap) { return tap->belongsTo(service); });
}

void Taps::onPassOver() {
  for (const auto& tap : taps_)
    if (tap->isWorthSending()) sendTo(*tap);
}

void Taps::onTimer() {
  bool isWaiting = false;
  for (const auto& tap : taps_) {
    sendTo(*tap);
    isWaiting = isWaiting || !tap->isEmpty();
  }
  if (isWaiting) batchTimer_.start(kBatchTicks);
  writeQueues_();
}

void Taps::sendTo(Tap& tap) {
  isSending_ = true;  // T1
  tap.send(outbox_);
  isSending_ = false;
}

}  // namespace loader
