// The free slots of a store: a balanced tree whose order from left to right is that of the sequence.
//
// A slot joins the tree at its left or right edge and is found by descending where `largest` allows it, so no
// position needs a number.  The tree is balanced by random priorities (a treap).
//
// SF1  a node's `largest` is the largest size in its subtree
// SF2  no child has a higher priority than its parent
// Held by FreeSlotsModel.ChoosesAsAPlainListDoes.

#include "store/space/free_slots.h"

#include <algorithm>

namespace kl {

void FreeSlots::pushFront(const Store::Entry& entry, bool counted) {
  const Index node = newNode(entry, counted);
  root_ = join(node, root_);
}

void FreeSlots::pushBack(const Store::Entry& entry, bool counted) {
  const Index node = newNode(entry, counted);
  root_ = join(root_, node);
}

bool FreeSlots::takeFirstFit(unsigned int needBytes, Slot& taken) {
  if (largestIn(root_) < needBytes || root_ == kNone) return false;
  root_ = removeFirstFit(root_, needBytes, taken);
  --count_;
  bytes_ -= taken.entry.size;
  return true;
}

void FreeSlots::clear() {
  nodes_.clear();
  root_ = unused_ = kNone;
  count_ = 0;
  bytes_ = 0;
}

std::vector<FreeSlots::Slot> FreeSlots::inOrder() const {
  std::vector<Slot> slots;
  append(root_, slots);
  return slots;
}

FreeSlots::Index FreeSlots::newNode(const Store::Entry& entry, bool counted) {
  ++count_;
  bytes_ += entry.size;
  const Node node{{entry, counted}, entry.size, nextPriority(), kNone, kNone};
  if (unused_ == kNone) {
    nodes_.push_back(node);
    return static_cast<Index>(nodes_.size() - 1);
  }
  const Index reused = unused_;
  unused_ = nodes_[reused].left;
  nodes_[reused] = node;
  return reused;
}

unsigned int FreeSlots::largestIn(Index root) const { return root == kNone ? 0 : nodes_[root].largest; }

void FreeSlots::refresh(Index node) {
  Node& n = nodes_[node];
  n.largest = std::max({n.slot.entry.size, largestIn(n.left), largestIn(n.right)});
}

// One tree of two, everything in `left` before everything in `right`.
FreeSlots::Index FreeSlots::join(Index left, Index right) {
  if (left == kNone) return right;
  if (right == kNone) return left;
  const bool leftOnTop = nodes_[left].priority >= nodes_[right].priority;
  const Index top = leftOnTop ? left : right;
  if (leftOnTop) nodes_[left].right = join(nodes_[left].right, right);
  else nodes_[right].left = join(left, nodes_[right].left);
  refresh(top);
  return top;
}

// Removes the first slot of at least needBytes and returns the new root.  Needs: there is one.
FreeSlots::Index FreeSlots::removeFirstFit(Index root, unsigned int needBytes, Slot& taken) {
  Node& node = nodes_[root];
  if (node.left != kNone && largestIn(node.left) >= needBytes) {
    node.left = removeFirstFit(node.left, needBytes, taken);
  } else if (node.slot.entry.size >= needBytes) {
    taken = node.slot;
    const Index rest = join(node.left, node.right);
    node.left = unused_;
    unused_ = root;
    return rest;
  } else {
    node.right = removeFirstFit(node.right, needBytes, taken);
  }
  refresh(root);
  return root;
}

void FreeSlots::append(Index root, std::vector<Slot>& slots) const {
  if (root == kNone) return;
  append(nodes_[root].left, slots);
  slots.push_back(nodes_[root].slot);
  append(nodes_[root].right, slots);
}

// Marsaglia's xorshift: the same tree on every run.
unsigned int FreeSlots::nextPriority() {
  seed_ ^= seed_ << 13;
  seed_ ^= seed_ >> 17;
  seed_ ^= seed_ << 5;
  return seed_;
}

}  // namespace kl
