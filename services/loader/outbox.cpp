#include "outbox.h"

#include <algorithm>
#include <utility>

#include "frame_reader.h"
#include "kl/conventions.h"

namespace loader {

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

// The frames were written here, so each of them is whole.
void Outbox::keepForNext(Service& left) {
  const Buffer all = std::exchange(left.held, Buffer());
  for (std::span<const unsigned char> rest = all.bytes(); !rest.empty();) {
    const std::size_t frameBytes = kPrefixBytes + kl::readLe32(rest.data());
    Envelope e;
    (void)readEnvelope(rest.subspan(kPrefixBytes, frameBytes - kPrefixBytes), e);  // its path may end here
    if (!e.isReply() && !e.isNotice() && e.command != kl::CMD_DISCONNECTED)
      left.held.append(rest.first(frameBytes));
    rest = rest.subspan(frameBytes);
  }
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
