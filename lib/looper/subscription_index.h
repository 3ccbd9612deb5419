#pragma once
// subscription_index.h: finds a subscription among many.

#include <cstdint>
#include <memory>
#include <vector>

#include "base/id_index.h"
#include "kl/conventions.h"

namespace kl {

// Finds the first message of a list that equals another one.  The list has the order of arrival.  Few are looked
// through one by one; many stand in a table under a hash of their fields, which is secret: a peer cannot choose
// subscriptions that stand in each other's way.
//
// Errors:    none.
// Ownership: borrows nothing; the list is named in each call.  Needs: it is always the same one, and every change of
//            it is told at once.
// Threads:   as the list.
// Cost:      to find and to add takes constant time, to remove moves what lies behind; up to 36 bytes a message,
//            none for few.
class SubscriptionIndex {
 public:
  static constexpr std::size_t kFew = 16;

  // Serial numbers begin where the test of their end wants them to.
  explicit SubscriptionIndex(std::uint32_t firstSerial = 1) : nextSerial_(firstSerial) {}

  // The place of the first message that equals `record`; the size of the list when there is none.
  std::size_t find(const std::vector<message>& list, const message& record) const;

  // The list got more messages, at its end.
  void noteAdded(const std::vector<message>& list);

  // The message at a place of the list is about to leave it.
  void noteRemoval(const std::vector<message>& list, std::size_t place);

  // Kept here for the handler: how many subscriptions it takes.
  unsigned int limit = BADID;

 private:
  // Serial numbers ascend along the list, so a message keeps its number when those in front of it leave.
  struct Entry {
    std::uint32_t hash = 0;
    std::uint32_t serial = 0;
    std::uint32_t id() const { return hash; }
    bool isFree() const { return serial == 0; }
  };

  std::size_t placeOf(const Entry& entry) const;
  void add(const message& record);
  void renew(std::size_t size);
  void clear();

  std::vector<std::uint32_t> serials_;  // of the messages in the list; empty as long as they are few
  std::uint32_t nextSerial_;
  std::unique_ptr<Entry[]> entries_;
  IdIndex<Entry> table_;
};

}  // namespace kl
