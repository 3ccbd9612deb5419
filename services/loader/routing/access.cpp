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

}  // namespace

Access Access::withoutRights() { return passed({}, true, kl::RIGHTS_ALL); }

Access Access::decide(const SenderRights& sender, const Envelope& e, const DestinationRules& to) {
  if (!e.isCommand()) return {};
  if (sender.isTrusted) return passedAsItIs(sender, e);
  if (to.accessList >= sender.grants.size()) return denied(Denial::kNone);
  const Grant& grant = sender.grants[to.accessList];
  if (grant.rights.none) return denied(Denial::kNone);
  if (to.commands != nullptr) {
    const auto need = to.commands->find(e.command);
    if (need == to.commands->end()) return denied(Denial::kUnlisted);
    if (const unsigned int missing = need->second & ~grant.rights.bits; missing != 0)
      return denied(Denial::kLacks, missing);
  }
  return passed(grant.records, true, grant.rights.bits);
}

std::string Access::reason() const {
  switch (denial) {
    case Denial::kNot: return {};
    case Denial::kNone: return "has no rights there";
    case Denial::kUnlisted: return "sends a command that is not listed there";
    case Denial::kLacks: return "lacks the right " + wordsOf(missing);
  }
  return {};
}

}  // namespace loader
