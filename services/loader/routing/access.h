#pragma once
// access.h: whether a request may be delivered, and what it carries of its sender's rights.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "config/commands.h"
#include "config/rights.h"
#include "routing/envelope.h"
#include "routing/rewrite.h"

namespace loader {

// The rights of one sender's requests at the destinations of one access list.
struct Grant {
  Rights rights;
  RightsRecords records;  // SYS_USER and SYS_POLICY, as its requests carry them
};

class UsersSpokenFor;

// The rights of a sender, made once when it registers.  Without grants nothing of it is delivered.
struct SenderRights {
  bool isTrusted = false;  // root and the loader's own user: requests pass with what they carry
  RightsRecords user;  // SYS_USER, for requests that do not bring it: those of a trusted one that name nobody
  std::vector<Grant> grants;  // by access list; the first is for destinations without a list of their own
  std::shared_ptr<const UsersSpokenFor> speaksFor = nullptr;  // whom its requests may name; null: nobody

  // The rights of a user whom its requests may name; null: they may not name him.
  const SenderRights* spokenFor(std::string_view name) const;
};

// Whether a request is one of root or of the loader's own user, who speak for nobody else and have laid down no right: they
// may read all of this machine anyway.
bool isUnlimited(const SenderRights& sender, const kl::message& request);

// The users whom the requests of a gateway may name, with what each of them may do.
//
// Errors:    none.
// Ownership: owns the names and the rights.
// Threads:   belongs to one thread.
// Cost:      a look-up takes constant time and allocates nothing.
class UsersSpokenFor {
 public:
  // `rights` are those of the user himself, with the record of his name.
  void add(const std::string& name, SenderRights rights) { users_.emplace(name, std::move(rights)); }

  // Null for a user whom it does not speak for.
  const SenderRights* find(std::string_view name) const {
    const auto found = users_.find(name);
    return found == users_.end() ? nullptr : &found->second;
  }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
  };

  std::unordered_map<std::string, SenderRights, Hash, std::equal_to<>> users_;
};

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
    kNone,         // the copy may be delivered
    kNoRights,     // the sender has no rights at this destination
    kUnlisted,     // the destination does not list the command
    kLacksRight,   // the sender lacks a right that the command needs
    kForeignUser,  // it names a user for whom it does not speak
  };

  Denial denial = Denial::kNone;
  unsigned int missing = 0;            // the bits that it lacks
  RightsMark mark;                     // what becomes of the rights in the copy
  unsigned int bits = kl::RIGHTS_ALL;  // those that it has in the end

  bool isDenied() const { return denial != Denial::kNone; }
  std::string reason() const;  // "lacks the right change"

  // Whether `user` (empty: the sender itself) may read there when this sender asks in his name.
  static bool mayRead(const SenderRights& sender, std::string_view user, const DestinationRules& to);

  // The copy passes without rights, so its receiver allows it everything.
  static Access withoutRights();
  // The same of what its receiver has subscribed to; that of a trusted sender passes as it is.
  static Access ofNotification(const SenderRights& sender);
  static Access decide(const SenderRights& sender, const Envelope& e, const DestinationRules& to);
  // The same of a command with these rights; the result has no mark.
  static Access decide(const Rights& rights, unsigned int command, const DestinationRules& to);
};

}  // namespace loader
