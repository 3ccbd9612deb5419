#pragma once
// kl/described.h: what the description of a service says of its objects, in the form that klgen puts into a header.
//
// Nobody writes these by hand: struct Lease of leases.kl.h has its own as Lease::kRules.  kl/table.h keeps to them,
// and kl/client.h asks where they say.

#include <span>
#include <vector>

#include "kl/field.h"
#include "kl/message.h"

namespace kl {

// The ids of fields that an object is to lose, in CMD_SETOBJ to a kl::Table.
inline constexpr field<std::vector<unsigned int>> TABLE_CLEARS{0x88fd0001};

// The values that a field may hold, and the requests that may give it.
struct FieldRule {
  // Uses, as bits.
  static constexpr unsigned int kRequired = 1;  // every object has it
  static constexpr unsigned int kAdded = 2;     // CMD_ADDOBJ takes it
  static constexpr unsigned int kSet = 4;       // CMD_SETOBJ takes it

  unsigned int id;
  const char* name;
  unsigned int uses;
  unsigned long long min = 0;  // of a number; of a text, of bytes or of an array their length
  unsigned long long max = ~0ULL;
  std::span<const unsigned int>
      values{};  // of a u32: those that have a word; empty where all have the same right
};

// The right that a command needs, as a bit of SYS_POLICY.
struct CommandRule {
  unsigned int code;
  unsigned int right;
};

// The objects of one handler.  Constants throughout: what a program does not use costs it nothing.
struct ObjectRules {
  // Changes that the handler has commands for, as bits.
  static constexpr unsigned int kAdd = 1;
  static constexpr unsigned int kSet = 2;
  static constexpr unsigned int kRemove = 4;
  static constexpr unsigned int kMove = 8;  // the objects have an order of their own
  // The command says nothing of what it takes: fields that the description does not know are taken, too.
  static constexpr unsigned int kAddsOthers = 16;
  static constexpr unsigned int kSetsOthers = 32;
  // The undo service can take back each change that a request makes.
  static constexpr unsigned int kUndone = 64;
  // Stands for a number where the service has none, or where it answers itself and has no handler for the objects.
  static constexpr unsigned int kNone = 0xffffffff;

  const char* name;      // of one object
  unsigned int service;  // its number, or kNone
  unsigned int handler;  // its number, or kNone
  unsigned int changes;
  std::span<const FieldRule> fields;
  std::span<const CommandRule> commands;  // whose rights are not those of the conventions
  const char* store = nullptr;            // the folder of the store that keeps the objects, below /kelo

  // The path to the objects.  Needs: the service has a number.
  std::vector<unsigned int> path() const {
    std::vector<unsigned int> numbers{service};
    if (handler != kNone) numbers.push_back(handler);
    return numbers;
  }

  // Null where the description has no such field.
  constexpr const FieldRule* find(unsigned int id) const {
    for (const FieldRule& rule : fields)
      if (rule.id == id) return &rule;
    return nullptr;
  }
};

// Takes the place of a structure where a command takes or gives nothing.
struct NoFields {
  static NoFields fromMessage(const message&) { return {}; }
  message toMessage() const { return {}; }
};

}  // namespace kl
