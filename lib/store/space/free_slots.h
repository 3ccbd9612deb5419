#pragma once
// free_slots.h: the free slots of a store in their order, and the first of them that is large enough.

#include <cstddef>
#include <vector>

#include "kl/store.h"

namespace kl {

// A sequence of free slots.  Each knows whether it was counted towards bloat.
//
// Errors:    none.
// Threads:   belongs to its store.
// Cost:      each operation takes time logarithmic in the number of slots; 40 bytes a slot.
class FreeSlots {
 public:
  struct Slot {
    Store::Entry entry;
    bool counted = false;
  };

  void pushFront(const Store::Entry& entry, bool counted);
  void pushBack(const Store::Entry& entry, bool counted);

  // Takes out the first slot of at least `needBytes`.  False, and `taken` as it was, if there is none.
  bool takeFirstFit(unsigned int needBytes, Slot& taken);

  void clear();

  std::size_t count() const { return count_; }
  // The sizes of all of them.
  unsigned long long bytes() const { return bytes_; }

  // The slots in their order; for tests.
  std::vector<Slot> inOrder() const;

 private:
  using Index = unsigned int;
  static constexpr Index kNone = 0xFFFFFFFF;

  struct Node {
    Slot slot;
    unsigned int largest;   // size of any slot in this subtree
    unsigned int priority;  // no child's is higher
    Index left;
    Index right;
  };

  Index newNode(const Store::Entry& entry, bool counted);
  unsigned int largestIn(Index root) const;
  void refresh(Index node);
  Index join(Index left, Index right);
  Index removeFirstFit(Index root, unsigned int needBytes, Slot& taken);
  void append(Index root, std::vector<Slot>& slots) const;
  unsigned int nextPriority();

  std::vector<Node> nodes_;
  Index root_ = kNone;
  Index unused_ = kNone;  // nodes without a slot, linked by `left`
  std::size_t count_ = 0;
  unsigned long long bytes_ = 0;
  unsigned int seed_ = 0x9E3779B9;
};

}  // namespace kl
