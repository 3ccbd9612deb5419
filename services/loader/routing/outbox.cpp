// A frame goes behind what is on its way, or behind what is held; a service with new bytes is marked, and written once
// when everything that a read brought is done.

#include "routing/outbox.h"

#include <algorithm>

#include "kl/conventions.h"
#include "kl/message_view.h"
#include "routing/frame_headers.h"
#include "services/common/byte_order.h"

namespace loader {
namespace {

// The kind of a frame for a service that does not see it yet.
HeldKind kindOf(bool isAnswer, unsigned int command) {
  if (isAnswer) return HeldKind::kAnswer;
  return command == kl::CMD_DISCONNECTED ? HeldKind::kGone : HeldKind::kMessage;
}

HeldKind kindOf(const Envelope& e) { return kindOf(e.isReply() || e.isErrorNotice(), e.command); }

HeldKind kindOf(const kl::message& m) {
  const bool isErrorNotice = !m.has(kl::SYS_CMD) && m.get(kl::SYS_STATUS, kl::STATUS_OK) == kl::STATUS_ERROR;
  return kindOf(kl::isReply(m) || isErrorNotice, m.get(kl::SYS_CMD, kl::CMD_NOOP));
}

Part partFor(Urgency urgency) {
  switch (urgency) {
    case Urgency::kOrdinary: return Part::kMost;
    case Urgency::kReply: return Part::kReplies;
    case Urgency::kNotice: break;
  }
  return Part::kWhole;
}

// The service that a message of the loader's own comes from; in a death notice, the one that has died.
unsigned int senderOf(const kl::message& m) {
  const auto from = m.view_u32_array(kl::SYS_FROM);
  return from.empty() ? kl::BADID : from.front();
}

}  // namespace

bool Outbox::deliver(Service& to, const Service& from, const Envelope& envelope, Path rest, Urgency urgency,
                     const RightsMark& mark) {
  if (urgency == Urgency::kOrdinary && isFull(to, from)) return drop(to);
  if (!admit(to, mostDelivered(envelope, mark), urgency)) return false;
  const unsigned int share = urgency == Urgency::kReply ? shareOf(to) : shareOf(from);
  const std::size_t bytes = append(to, from.id, share, kindOf(envelope), [&](Buffer& queue) {
    (void)appendDelivered(queue, envelope, rest, from.id, mark);
  });
  to.senders.add(from.id, bytes);
  return true;
}

bool Outbox::send(Service& to, const kl::message& m, Urgency urgency) {
  if (!to.isConnected() && !to.isHeldFor) return false;
  if (witness_ != nullptr) [[unlikely]]
    witness_->onOwnMessage(to, m);
  noteOwn(to, m);
  if (!admit(to, m.max_length(), urgency)) return false;
  const HeldKind kind = to.isHeldFor ? kindOf(m) : HeldKind::kMessage;
  const unsigned int sender = to.isHeldFor ? senderOf(m) : kl::BADID;
  work_.spend(Work::kMessage);
  const std::size_t bytes =
      append(to, sender, kl::SERVICE_LOADER, kind, [&](Buffer& queue) { appendFrame(queue, m); });
  to.senders.add(kl::SERVICE_LOADER, bytes);
  countSent(bytes);
  return true;
}

// Nothing may have been read for a while, so the moment is asked for.
void Outbox::noteOwn(const Service& to, const kl::message& m) const {
  if (ring_ == nullptr) return;
  ring_->setNow(common::momentNow());
  (void)ring_->add(headerOf(m, to.id));
}

void Outbox::release(Service& to) {
  if (to.held.empty()) return;
  to.held.moveTo(to.out);
  markDirty(to);
}

unsigned int Outbox::shareOf(const Service& service) const {
  const bool isTrusted = service.isConfigured || service.uid == 0 || service.uid == ownUser_;
  return isTrusted ? service.id : Shares::ofUser(service.uid);
}

bool Outbox::isShareUsed(Service& to, const Service& from) const {
  const std::size_t waiting = to.waiting();
  to.shares.update(waiting);
  return Shares::isShareUsed(to.shares.of(shareOf(from)), waiting, queueLimit_);
}

std::size_t Outbox::ownBytes(Service& to) const {
  to.shares.update(to.waiting());
  return to.shares.of(kl::SERVICE_LOADER);
}

void Outbox::recount(Service& to) {
  to.shares.clear();
  std::size_t before = 0;
  to.held.eachFrame([&](unsigned int share, unsigned int bytes) {
    to.shares.add(share, bytes, before, Shares::floorOf(queueLimit_));
    before += bytes;
  });
}

void Outbox::countSent(std::size_t bytes) {
  if (sender_ == nullptr) return;
  ++sender_->traffic.messagesOut;
  sender_->traffic.bytesOut += bytes;
}

// A queue below its limit takes the whole frame, or a large one might never get through.  An account is charged
// memory: that of the queue, and of what is noted about its frames.  A frame is taken in any case where no more of it
// is needed.
bool Outbox::hasRoomFor(const Service& to, std::size_t bytes, Urgency urgency) const {
  if (urgency == Urgency::kOrdinary && isFull(to)) return false;
  if (to.account == nullptr) return true;
  const std::size_t growth = (to.isHeldFor ? to.held.growthFor(bytes) : to.out.growthFor(bytes)) +
                             to.shares.growth(to.waiting(), Shares::floorOf(queueLimit_));
  return growth == 0 || to.account->hasRoomFor(Resource::kQueueBytes, growth, partFor(urgency));
}

bool Outbox::admit(Service& to, std::size_t bytes, Urgency urgency) {
  return hasRoomFor(to, kl::FRAME_PREFIX_BYTES + bytes, urgency) || drop(to);
}

bool Outbox::drop(Service& to) {
  ++to.traffic.drops;
  return false;
}

// Puts the frame that `write` appends into the queue that it belongs into; the number of its bytes, which count for
// `share`.
template <class Write>
std::size_t Outbox::append(Service& to, unsigned int sender, unsigned int share, HeldKind kind, Write write) {
  const std::size_t waiting = to.waiting();
  const std::size_t before = to.out.size();
  std::size_t bytes = 0;
  if (to.isHeldFor) {
    bytes = to.held.add(sender, share, kind, write);
  } else {
    write(to.out);
    bytes = to.out.size() - before;
    markDirty(to);
  }
  to.shares.add(share, bytes, waiting, Shares::floorOf(queueLimit_));
  work_.spend(Work::kFrame);
  work_.spendBytes(bytes);
  ++to.traffic.messagesIn;
  to.traffic.bytesIn += bytes;
  return bytes;
}

void Outbox::markDirty(Service& to) {
  if (to.isDirty) return;
  to.isDirty = true;
  dirty_.push_back(&to);
}

void Outbox::forget(Service& service) {
  if (service.isDirty) std::replace(dirty_.begin(), dirty_.end(), &service, static_cast<Service*>(nullptr));
  service.isDirty = false;
}

void appendFrame(Buffer& out, const kl::message& m) {
  const unsigned int most = m.max_length();
  unsigned char* at = out.grow(kl::FRAME_PREFIX_BYTES + most);
  unsigned int length = most;
  m.flatten(at + kl::FRAME_PREFIX_BYTES, &length);
  common::storeLe32(at, length);
  out.dropBack(most - length);
}

}  // namespace loader
