// One walk over the record headers.  The fields that routing depends on are noted; what must not be carried is named.

#include "routing/envelope.h"

#include <array>

namespace loader {
namespace {

constexpr unsigned int kSystemNumbers = 64;  // those from here on are beyond every system field

constexpr unsigned int kSystemFields[] = {
    kl::SYS_TO,     kl::SYS_FROM, kl::SYS_TYPE,     kl::SYS_STATUS,    kl::SYS_REPLYEXP,
    kl::SYS_REQID,  kl::SYS_CMD,  kl::SYS_ERRNO,    kl::SYS_ERRSTR,    kl::SYS_USER,
    kl::SYS_POLICY, kl::SYS_CTRL, kl::SYS_CTRL_ARG, kl::SYS_NOTIFYCMD, kl::SYS_NOTIFYPATH};

constexpr std::array<unsigned int, kSystemNumbers> byNumber() {
  std::array<unsigned int, kSystemNumbers> ids{};
  for (const unsigned int id : kSystemFields) ids[id & 0xffff] = id;
  return ids;
}

// The system fields by their numbers.  0 stands for a number without a name, and for SYS_RADDR, whose type is open.
constexpr std::array<unsigned int, kSystemNumbers> kSystemIds = byNumber();

// Notes which system fields a frame has.  A second one with the same number could be read differently here and at
// the receiver, so it is never carried; nor is one of another type, which would be the first of two as soon as a
// receiver adds the field itself and sends the message on.
class SeenSystemFields {
 public:
  // The fault of the field; null when it may be carried.
  const char* add(unsigned int id) {
    if ((id & kl::NAMESPACE_MASK) != kl::NAMESPACE_SYS) return nullptr;
    const unsigned int number = id & 0xffff;
    if (number >= kSystemNumbers) return nullptr;
    if (kSystemIds[number] != 0 && kSystemIds[number] != id) return "sent a system field of another type";
    const unsigned long long bit = 1ULL << number;
    const bool isSecond = (seen_ & bit) != 0;
    seen_ |= bit;
    return isSecond ? "sent a system field twice" : nullptr;
  }

 private:
  unsigned long long seen_ = 0;
};

void note(const kl::Record& record, Envelope& e) {
  switch (record.id()) {
    case kl::SYS_TO: e.to = record; break;
    case kl::SYS_FROM: e.from = record; break;
    case kl::SYS_USER: e.user = record; break;
    case kl::SYS_POLICY: e.policy = record; break;
    case kl::SYS_TYPE: e.type = record.u32(); break;
    case kl::SYS_STATUS: e.status = record.u32(); break;
    case kl::SYS_ERRNO: e.error = record.u32(); break;
    case kl::SYS_REPLYEXP:
      e.expectsReply = record.boolean();
      e.hasReplyMark = true;
      break;
    case kl::SYS_REQID:
      e.requestId = record.u32();
      e.hasRequestId = true;
      break;
    case kl::SYS_CMD:
      e.command = record.u32();
      e.hasCommand = true;
      break;
    case kl::SYS_CTRL:
      e.control = record.u32();
      e.isControl = true;
      break;
    case kl::SYS_CTRL_ARG: e.controlArgument = record.u32(); break;
    default: break;
  }
}

const char* faultOfPaths(const Envelope& e) {
  const Path path = e.path();
  if (e.to.bytes().empty() || path.empty()) return "sent a message without a path";
  if (path[0] == kl::PATH_SELF) return "sent a path that begins with PATH_SELF";
  if (path[0] != kl::PATH_MULTI && path.size() > kMaxPathLength) return "sent a path of more than 32 hops";
  if (e.returnPath().size() > kMaxReturnPathLength) return "sent a return path of more than 31 hops";
  return nullptr;
}

}  // namespace

const char* readEnvelope(std::span<const unsigned char> body, Envelope& envelope) {
  envelope = Envelope{};
  envelope.body = body;
  SeenSystemFields seen;
  kl::RecordWalk walk(body);
  for (kl::Record record; walk.next(record);) {
    if (const char* fault = seen.add(record.id())) return fault;
    note(record, envelope);
  }
  if (!walk.ok()) return "sent bytes that are no message";
  return faultOfPaths(envelope);
}

}  // namespace loader
