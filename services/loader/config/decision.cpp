// The first entry that covers the user decides; those before it are kept, for whoever wonders.

#include "config/decision.h"

#include <unistd.h>

namespace loader {
namespace {

// True when an entry of the list decided.
bool ask(const AccessList& list, uid_t uid, Decision& decision) {
  for (const AccessEntry& entry : list.entries) {
    const RuleReference rule{list.name, entry.key, entry.line, entry.rights};
    if (entry.covers(uid)) {
      decision.rights = entry.rights;
      decision.rule = rule;
      return true;
    }
    decision.passed.push_back(rule);
  }
  return false;
}

}  // namespace

bool isTrusted(uid_t uid) { return uid == 0 || uid == ::geteuid(); }

Decision explain(const Configuration& configuration, const Sender& sender, unsigned int destination) {
  Decision decision;
  if (isTrusted(sender.uid)) {
    decision.rights = Rights::everything();
    decision.rule = {"built in", configuration.users.nameOf(sender.uid), 0, decision.rights};
    return decision;
  }
  const AccessList* access = configuration.accessOf(destination);
  if (access != nullptr && ask(*access, sender.uid, decision)) return decision;
  if (sender.service != nullptr && sender.service->rights) {
    decision.rights = *sender.service->rights;
    decision.rule = {"rights of " + sender.service->name, "rights", sender.service->rightsLine,
                     decision.rights};
    return decision;
  }
  if (ask(configuration.rights, sender.uid, decision)) return decision;
  decision.rights = Rights::of(kl::RIGHT_READ);
  decision.rule = {"built in", "default", 0, decision.rights};
  return decision;
}

}  // namespace loader
