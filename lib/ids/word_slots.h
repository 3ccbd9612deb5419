#pragma once
// word_slots.h: opens and closes a slot in the arrays of a node.

#include <algorithm>

namespace kl::words {

// Moves the items from `at` on up by one.  Needs: room for one more than `count`.
template <class Item>
void openSlot(Item* items, int count, int at) {
  std::copy_backward(items + at, items + count, items + count + 1);
}

// Moves the items behind `at` down over it.
template <class Item>
void closeSlot(Item* items, int count, int at) {
  std::copy(items + at + 1, items + count, items + at);
}

}  // namespace kl::words
