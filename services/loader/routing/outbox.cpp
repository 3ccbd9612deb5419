#include "routing/outbox.h"

#include <algorithm>
#include <set>
#include <utility>

#include "kl/conventions.h"
#include "transport/frame_reader.h"

namespace loader {
namespace {

// Calls take(frame, envelope) for each frame.  They were written here, so each of them is whole.
template <class Function>
void eachFrame(std::span<const unsigned char> frames, Function take) {
  while (!frames.empty()) {
    const std::size_t frameBytes = kPrefixBytes + kl::readLe32(frames.data());
    Envelope e;
    (void)readEnvelope(frames.subspan(kPrefixBytes, frameBytes - kPrefixBytes), e);  // its path may end here
    take(frames.first(frameBytes), e);
    frames = frames.subspan(frameBytes);
  }
}

// Whose words these are; in news of an end, who has ended.
unsigned int senderOf(const Envelope& e) {
  return e.returnPath().size() == 0 ? kl::BADID : e.returnPath()[0];
}

bool isEnd(const Envelope& e) { return e.command == kl::CMD_DISCONNECTED; }

}  // namespace

bool Outbox::deliver(Service& to, const Service& from, const Envelope& envelope, Path rest, Urgency urgency) {
  if (!takes(to, envelope.body.size(), urgency)) return false;
  const bool isHeld = to.holds();
  queued(to, appendDelivered(isHeld ? to.held : to.out, envelope, rest, from.id, from.rights), isHeld);
  return true;
}

bool Outbox::send(Service& to, const kl::message& m, Urgency urgency) {
  const bool isHeld = to.holds();
  if (!to.isConnected() && !isHeld) return false;
  if (!takes(to, m.max_length(), urgency)) return false;
  Buffer& queue = isHeld ? to.held : to.out;
  const std::size_t before = queue.size();
  appendFrame(queue, m);
  const std::size_t bytes = queue.size() - before;
  queued(to, bytes, isHeld);
  sent(bytes);
  return true;
}

void Outbox::release(Service& to) {
  if (to.held.empty()) return;
  to.out.append(to.held.bytes());
  to.held.clear();
  hasNews(to);
}

bool Outbox::holdsWordOf(const Service& to, unsigned int sender) {
  bool holds = false;
  eachFrame(to.held.bytes(), [&](std::span<const unsigned char>, const Envelope& e) {
    if (senderOf(e) == sender) holds = !isEnd(e);
  });
  return holds;
}

void Outbox::keepForNext(Service& left) {
  const Buffer all = std::exchange(left.held, Buffer());
  std::set<unsigned int> heard;  // whose words are kept so far
  eachFrame(all.bytes(), [&](std::span<const unsigned char> frame, const Envelope& e) {
    if (e.isReply() || e.isNotice()) return;
    if (isEnd(e) && heard.erase(senderOf(e)) == 0) return;
    if (!isEnd(e)) heard.insert(senderOf(e));
    left.held.append(frame);
  });
}

void Outbox::sent(std::size_t bytes) {
  if (sender_ == nullptr) return;
  ++sender_->traffic.messagesOut;
  sender_->traffic.bytesOut += bytes;
}

// A queue below its limit takes the whole frame, or a large one might never get through.
unsigned int Outbox::obstacleFor(const Service& to, std::size_t bytes) const {
  if (bytes > kMaxOrdinaryBytes) return kl::ERROR_TOOBIG;
  return isFull(to) ? kl::ERROR_BUSY : kl::ERROR_OK;
}

bool Outbox::takes(Service& to, std::size_t bytes, Urgency urgency) {
  const bool fits = urgency == Urgency::kReply ? to.waiting() == 0 || to.waiting() + bytes <= kMaxQueueBytes
                                               : obstacleFor(to, bytes) == kl::ERROR_OK;
  if (!fits) ++to.traffic.drops;
  return fits;
}

void Outbox::queued(Service& to, std::size_t bytes, bool isHeld) {
  ++to.traffic.messagesIn;
  to.traffic.bytesIn += bytes;
  if (!isHeld) hasNews(to);
}

void Outbox::hasNews(Service& to) {
  if (to.hasNews) return;
  to.hasNews = true;
  news_.push_back(&to);
}

void Outbox::forget(Service& service) {
  if (service.hasNews) std::replace(news_.begin(), news_.end(), &service, static_cast<Service*>(nullptr));
  service.hasNews = false;
}

void appendFrame(Buffer& out, const kl::message& m) {
  const unsigned int most = m.max_length();
  unsigned char* at = out.grow(kPrefixBytes + most);
  unsigned int length = most;
  m.flatten(at + kPrefixBytes, &length);
  for (std::size_t i = 0; i < kPrefixBytes; ++i) at[i] = static_cast<unsigned char>(length >> 8 * i);
  out.dropBack(most - length);
}

}  // namespace loader
