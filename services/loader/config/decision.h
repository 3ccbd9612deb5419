#pragma once
// decision.h: what a user may do at a destination, and which line of the configuration says so.

#include <sys/types.h>

#include <string>
#include <vector>

#include "config/configuration.h"

namespace loader {

// The entry that a decision comes from.
struct RuleReference {
  std::string table;      // "access of log", "rights", "rights of netif" or "built in"
  std::string key;        // "bob", "@wheel", "default"; "root" and "default" of what is built in
  unsigned int line = 0;  // of the configuration file; 0 of what is built in
  Rights rights;          // what it gives
};

struct Decision {
  Rights rights;
  RuleReference rule;                 // the one that decided
  std::vector<RuleReference> passed;  // those before it, which do not cover the user, in the order of asking
};

// The sender: a user, or the process of a configured service, whose key `rights` stands in the place of [rights].
struct Sender {
  uid_t uid = 0;
  const ServiceConfiguration* service = nullptr;
};

// Root and the loader's own user, whose requests pass with what they carry.
bool isTrusted(uid_t uid);

// Asks the `access` of the destination before [rights]; in each the user, then groups in the order of lines, then the
// default.  A sender that nothing covers may read.  BADID stands for any destination without an `access` of its own.
Decision explain(const Configuration& configuration, const Sender& sender, unsigned int destination);

}  // namespace loader
