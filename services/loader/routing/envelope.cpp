// One walk over the record headers.  The fields that routing depends on are noted; what must not be carried is named.

#include "routing/envelope.h"

namespace loader {
namespace {

constexpr unsigned int kNameSpaceMask = 0x00ff0000;
constexpr unsigned int kSystemNameSpace = 0x00ff0000;

// Notes which system fields a frame has.  A second one with the same number could be read differently here and at
// the receiver, so it is never carried.
class SeenSystemFields {
 public:
  // False when the field was there before.
  bool add(unsigned int id) {
    if ((id & kNameSpaceMask) != kSystemNameSpace) return true;
    const unsigned int number = id & 0xffff;
    if (number >= 64) return true;  // beyond every system field
    const unsigned long long bit = 1ULL << number;
    const bool fresh = (seen_ & bit) == 0;
    seen_ |= bit;
    return fresh;
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
    case kl::SYS_REPLYEXP: e.expectsReply = record.boolean(); break;
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
    if (!seen.add(record.id())) return "sent a system field twice";
    note(record, envelope);
  }
  if (!walk.ok()) return "sent bytes that are no message";
  return faultOfPaths(envelope);
}

}  // namespace loader
