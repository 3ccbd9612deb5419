#include "outbox.h"

#include <algorithm>
#include <utility>

#include "frame_reader.h"
#include "kl/conventions.h"

namespace loader {

bool Outbox::deliver(Service& to, const Service& from, const Envelope& envelope, Path rest, Urgency urgency) {
  if (!takes(to, envelope.body.size(), urgency)) return false;
  queued(to, appendDelivered(to.out, envelope, rest, from.id, from.rights));
  return true;
}

bool Outbox::send(Service& to, const kl::message& m, Urgency urgency) {
  if (!takes(to, m.max_length(), urgency)) return false;
  const std::size_t before = to.out.size();
  appendFrame(to.out, m);
  const std::size_t bytes = to.out.size() - before;
  queued(to, bytes);
  sent(bytes);
  return true;
}

void Outbox::sendFirst(Service& to, const kl::message& m) {
  const Buffer held = std::exchange(to.out, Buffer());
  appendFrame(to.out, m);
  queued(to, to.out.size());
  sent(to.out.size());
  to.out.append(held.bytes());
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
  const bool fits = urgency == Urgency::kReply ? to.out.empty() || to.out.size() + bytes <= kMaxQueueBytes
                                               : obstacleFor(to, bytes) == kl::ERROR_OK;
  if (!fits) ++to.traffic.drops;
  return fits;
}

void Outbox::queued(Service& to, std::size_t bytes) {
  ++to.traffic.messagesIn;
  to.traffic.bytesIn += bytes;
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
