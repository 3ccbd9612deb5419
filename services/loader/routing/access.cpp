// The trusted are asked nothing.  Everybody else has one grant for each access list of the configuration, and the
// destination says by its number which of them counts.

#include "routing/access.h"

namespace loader {
namespace {

Access denied(Access::Denial why, unsigned int missing = 0) {
  Access result;
  result.denial = why;
  result.missing = missing;
  return result;
}

Access passed(std::span<const unsigned char> records, bool replaces, unsigned int bits) {
  Access result;
  result.mark = {records, replaces};
  result.bits = bits;
  return result;
}

// A trusted sender may limit its own request.
Access passedAsItIs(const SenderRights& sender, const Envelope& e) {
  const unsigned int bits = e.policy.bytes().empty() ? kl::RIGHTS_ALL : e.policy.u32();
  if (!e.user.bytes().empty()) return passed({}, false, bits);
  return passed(sender.user, false, bits);
}

// Null where nothing of the sender is delivered.
const Grant* grantAt(const SenderRights& sender, const DestinationRules& to) {
  if (to.accessList >= sender.grants.size()) return nullptr;
  const Grant& grant = sender.grants[to.accessList];
  return grant.rights.none ? nullptr : &grant;
}

// Whether these bits suffice for the command, as far as the destination says what it needs.
Access judged(unsigned int bits, unsigned int command, const DestinationRules& to) {
  if (to.commands == nullptr) return {};
  const auto need = to.commands->find(command);
  if (need == to.commands->end()) return denied(Access::Denial::kUnlisted);
  const unsigned int missing = need->second & ~bits;
  return missing == 0 ? Access() : denied(Access::Denial::kLacksRight, missing);
}

// The request names a user: he may do what he may do himself at the destination, as far as the bits of the request go.
// Nobody speaks for a user who may do everything there.
Access decideInNameOf(const SenderRights* user, const Envelope& e, const DestinationRules& to) {
  if (user == nullptr) return denied(Access::Denial::kForeignUser);
  const Grant* grant = grantAt(*user, to);
  if (grant == nullptr) return denied(Access::Denial::kNoRights);
  if ((grant->rights.bits & kl::RIGHT_OF_NOBODY) != 0) return denied(Access::Denial::kForeignUser);
  const unsigned int bits = grant->rights.bits & (e.policy.bytes().empty() ? kl::RIGHTS_ALL : e.policy.u32());
  Access result = judged(bits, e.command, to);
  result.mark = {user->user, true, true, bits};
  result.bits = bits;
  return result;
}

}  // namespace

const SenderRights* SenderRights::spokenFor(std::string_view name) const {
  return speaksFor == nullptr ? nullptr : speaksFor->find(name);
}

bool isUnlimited(const SenderRights& sender, const kl::message& request) {
  return sender.isTrusted && request.get(kl::SYS_POLICY, kl::RIGHTS_ALL) == kl::RIGHTS_ALL;
}

Access Access::withoutRights() { return passed({}, true, kl::RIGHTS_ALL); }

Access Access::ofNotification(const SenderRights& sender) {
  return passed({}, !sender.isTrusted, kl::RIGHTS_ALL);
}

Access Access::decide(const SenderRights& sender, const Envelope& e, const DestinationRules& to) {
  if (!e.isCommand()) return {};
  if (sender.isTrusted) return passedAsItIs(sender, e);
  if (sender.speaksFor != nullptr) {
    // A gateway alone knows when something behind it ends.
    if (e.command == kl::CMD_DISCONNECTED) return withoutRights();
    if (!e.user.bytes().empty()) return decideInNameOf(sender.speaksFor->find(e.user.text()), e, to);
  }
  const Grant* grant = grantAt(sender, to);
  if (grant == nullptr) return denied(Denial::kNoRights);
  const Access judgement = judged(grant->rights.bits, e.command, to);
  return judgement.isDenied() ? judgement : passed(grant->records, true, grant->rights.bits);
}

Access Access::decide(const Rights& rights, unsigned int command, const DestinationRules& to) {
  return rights.none ? denied(Denial::kNoRights) : judged(rights.bits, command, to);
}

bool Access::mayRead(const SenderRights& sender, std::string_view user, const DestinationRules& to) {
  if (sender.isTrusted) return true;
  const SenderRights* const spokenFor = sender.spokenFor(user);
  const Grant* grant = grantAt(spokenFor != nullptr ? *spokenFor : sender, to);
  return grant != nullptr && (grant->rights.bits & kl::RIGHT_READ) != 0;
}

std::string Access::reason() const {
  switch (denial) {
    case Denial::kNone: return {};
    case Denial::kNoRights: return "has no rights there";
    case Denial::kUnlisted: return "sends a command that is not listed there";
    case Denial::kLacksRight: return "lacks the right " + wordsOf(missing);
    case Denial::kForeignUser: return "names a user for whom it does not speak";
  }
  return {};
}

}  // namespace loader
