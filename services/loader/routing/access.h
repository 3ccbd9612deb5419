#pragma once
// access.h: whether a request may be delivered, and what it carries of its sender's rights.

#include <unordered_map>
#include <vector>

#include "config/rights.h"
#include "routing/envelope.h"
#include "routing/rewrite.h"

namespace loader {

// What the requests of one sender may do at the destinations of one access list.
struct Grant {
  Rights rights;
  RightsRecords records;  // SYS_USER and SYS_POLICY, as its requests carry them
};

// The rights of a sender, made once when it registers.  Without grants nothing of it is delivered.
struct SenderRights {
  bool isTrusted = false;     // root and the loader's own user: requests pass with what they carry
  RightsRecords user;         // of a trusted one: SYS_USER, for its requests that name nobody
  std::vector<Grant> grants;  // by access list; the first is for destinations without a list of their own
};

// What each command of a destination needs.
using CommandRights = std::unordered_map<unsigned int, unsigned int>;

// The rules of a destination, made once from the configuration.
struct DestinationRules {
  unsigned int accessList = 0;
  const CommandRights* commands = nullptr;  // null: whatever the command, the destination decides itself
};

// Decides about one copy of a frame.  Replies and messages without a command pass as they came.
//
// Errors:    a request that may not be delivered says which right it lacks.
// Ownership: the result borrows the records of the sender.
// Threads:   values.
// Cost:      constant time, no allocation.
struct Access {
  enum class Denial : unsigned char {
    kNot,       // the copy may be delivered
    kNone,      // the sender has no rights at this destination
    kUnlisted,  // the destination does not list the command
    kLacks,     // the sender lacks a right that the command needs
  };

  Denial denial = Denial::kNot;
  unsigned int missing = 0;            // the bits that it lacks
  RightsMark mark;                     // what becomes of the rights in the copy
  unsigned int bits = kl::RIGHTS_ALL;  // those that it has in the end

  bool isDenied() const { return denial != Denial::kNot; }
  std::string reason() const;  // "lacks the right change"

  // The copy passes without rights, so its receiver allows it everything.
  static Access withoutRights();
  static Access decide(const SenderRights& sender, const Envelope& e, const DestinationRules& to);
};

}  // namespace loader
