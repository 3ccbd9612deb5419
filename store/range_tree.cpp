// A tree of wide nodes: ranges stand in leaves.  A search reads sixteen keys of one node a level and takes no
// branch that depends on them.
//
// T1  keys ascend; a branch's key i is the last key of its child i
// T2  slots behind the last one have the key kNoKey, so that a search needs no count
// T3  a branch's value i is not less than any value, or span, of its child i; a leaf's `bound` is the value above it
// T4  leaves are linked in their order; only a root that is a leaf is empty
// T5  the current place follows its range wherever that moves
//
// Bounds rise with the ranges at once and fall only when findWidest() meets one that is too high: each is then
// put right, so that a search pays for what the changes before it left.

#include "store/range_tree.h"

#include <algorithm>

namespace kl::ranges {
namespace {

constexpr unsigned int kGroup = 8;                // keys that are counted one by one
constexpr unsigned int kSmall = kWidth / 4;       // below it a node looks for a neighbour to merge with,
constexpr unsigned int kMerged = kWidth * 3 / 4;  // if both together have no more than this

// Two short counts, without a branch that depends on the keys: which group of eight, and how many of it.
unsigned int countBelow(const Node& node, unsigned int id) {
  unsigned int groups = 0;
  for (unsigned int end = kGroup - 1; end < kWidth - 1; end += kGroup) groups += node.key[end] < id ? 1U : 0U;
  const unsigned int* const group = node.key + kGroup * groups;
  unsigned int below = kGroup * groups;
  for (unsigned int i = 0; i < kGroup; ++i) below += group[i] < id ? 1U : 0U;
  return below;
}

unsigned int lastKey(const Node& node) { return node.key[node.count - 1]; }

Branch& branchOf(Node& node) { return static_cast<Branch&>(node); }
Leaf& leafOf(Node& node) { return static_cast<Leaf&>(node); }

unsigned int indexOf(const Branch& parent, const Node& child) {
  unsigned int at = 0;
  while (parent.child[at] != &child) ++at;
  return at;
}

template <class Item>
void openSlot(Item* items, unsigned int count, unsigned int at) {
  std::copy_backward(items + at, items + count, items + count + 1);
}

template <class Item>
void closeSlot(Item* items, unsigned int count, unsigned int at) {
  std::copy(items + at + 1, items + count, items + at);
}

unsigned int spanAt(const Node& node, unsigned int at) {
  return node.isLeaf ? node.key[at] - node.value[at] : node.value[at];
}

unsigned int widestSlot(const Node& node) {
  unsigned int widest = 0;
  for (unsigned int at = 1; at < node.count; ++at)
    if (spanAt(node, at) > spanAt(node, widest)) widest = at;
  return widest;
}

void link(Leaf& leaf, Leaf& next) {
  next.previous = &leaf;
  next.next = leaf.next;
  if (next.next != nullptr) next.next->previous = &next;
  leaf.next = &next;
}

void unlink(Leaf& leaf) {
  if (leaf.previous != nullptr) leaf.previous->next = leaf.next;
  if (leaf.next != nullptr) leaf.next->previous = leaf.previous;
}

void deleteNode(Node& node) {
  if (node.isLeaf) delete &leafOf(node);
  else delete &branchOf(node);
}

void deleteAll(Node& node) {
  if (!node.isLeaf) std::for_each_n(branchOf(node).child, node.count, [](Node* child) { deleteAll(*child); });
  deleteNode(node);
}

// T3 for one child, whose own values are right.
void lowerBound(Branch& parent, unsigned int at, unsigned int bound) {
  parent.value[at] = bound;
  if (parent.child[at]->isLeaf) leafOf(*parent.child[at]).bound = bound;
}

}  // namespace

Node::Node(bool leaf) : isLeaf(leaf) { std::fill(key, key + kWidth, kNoKey); }

RangeTree::RangeTree() : first_(new Leaf) {
  root_ = first_;
  current_ = lowest();
}

RangeTree::~RangeTree() { deleteAll(*root_); }

Place RangeTree::find(unsigned int id) const {
  Node* node = root_;
  while (!node->isLeaf) node = branchOf(*node).child[std::min(countBelow(*node, id), node->count - 1)];
  return {&leafOf(*node), countBelow(*node, id)};
}

Place RangeTree::findWidest() {
  Node* node = root_;
  while (!node->isLeaf) {
    Branch& branch = branchOf(*node);
    const unsigned int at = widestSlot(branch);
    Node& child = *branch.child[at];
    const unsigned int bound = spanAt(child, widestSlot(child));
    const bool isRight = bound == branch.value[at];
    if (!isRight) lowerBound(branch, at, bound);
    node = isRight ? &child : root_;
  }
  return {&leafOf(*node), widestSlot(*node)};
}

Place RangeTree::next(Place place) {
  ++place.at;
  if (!place.isRange() && place.leaf->next != nullptr) return {place.leaf->next, 0};
  return place;
}

bool RangeTree::stepBack(Place& place) {
  if (place.at == 0) {
    if (place.leaf->previous == nullptr) return false;
    place = {place.leaf->previous, place.leaf->previous->count};
  }
  --place.at;
  return true;
}

Place RangeTree::insert(Place place, unsigned int first, unsigned int last) {
  if (place.leaf->count == kWidth) {
    split(*place.leaf);
    if (place.at > place.leaf->count) place = {place.leaf->next, place.at - place.leaf->count};
  }
  Leaf& leaf = *place.leaf;
  if (current_.leaf == &leaf && current_.at >= place.at && leaf.count > 0) ++current_.at;  // T5
  openSlot(leaf.key, leaf.count, place.at);
  openSlot(leaf.value, leaf.count, place.at);
  leaf.key[place.at] = last;
  leaf.value[place.at] = first;
  ++leaf.count;
  if (place.at + 1 == leaf.count) passKeyUp(leaf);
  noteSpan(leaf, last - first);
  return place;
}

void RangeTree::erase(Place place) {
  Leaf& leaf = *place.leaf;
  removeSlot(leaf, place.at);
  if (current_.leaf == &leaf && current_.at > place.at) --current_.at;  // T5
  if (!current_.isRange()) current_ = leaf.next != nullptr ? Place{leaf.next, 0} : lowest();
  if (leaf.count == 0) removeEmpty(leaf);
  else mergeIfSmall(leaf);
}

void RangeTree::setFirst(Place place, unsigned int first) {
  place.leaf->value[place.at] = first;
  noteSpan(*place.leaf, place.last() - first);
}

void RangeTree::setLast(Place place, unsigned int last) {
  place.leaf->key[place.at] = last;
  if (place.at + 1 == place.leaf->count) passKeyUp(*place.leaf);
  noteSpan(*place.leaf, last - place.first());
}

// T3 upwards, as far as a bound is too low.
void RangeTree::noteSpan(Leaf& leaf, unsigned int span) {
  if (span <= leaf.bound) return;
  leaf.bound = span;
  Node* node = &leaf;
  for (Branch* parent = node->parent; parent != nullptr; parent = node->parent) {
    unsigned int& bound = parent->value[indexOf(*parent, *node)];
    if (bound >= span) return;
    bound = span;
    node = parent;
  }
}

void RangeTree::split(Node& node) {
  Node* right = nullptr;
  if (node.isLeaf) {
    auto* leaf = new Leaf;
    leaf->bound = leafOf(node).bound;
    link(leafOf(node), *leaf);
    right = leaf;
  } else {
    right = new Branch;
  }
  moveTail(node, kWidth / 2, *right);
  addSibling(node, *right);
}

// `right` has the upper part of what `left` had.
void RangeTree::addSibling(Node& left, Node& right) {
  if (left.parent == nullptr) {
    auto* root = new Branch;
    root->count = 1;
    root->child[0] = &left;
    root->key[0] = lastKey(right);
    root->value[0] = left.isLeaf ? leafOf(left).bound
                                 : std::max(spanAt(left, widestSlot(left)), spanAt(right, widestSlot(right)));
    root_ = left.parent = root;
  }
  if (left.parent->count == kWidth) split(*left.parent);
  Branch& parent = *left.parent;
  const unsigned int at = indexOf(parent, left);
  openSlot(parent.key, parent.count, at);
  openSlot(parent.value, parent.count, at);
  openSlot(parent.child, parent.count, at + 1);
  ++parent.count;
  parent.key[at] = lastKey(left);
  parent.child[at + 1] = &right;
  right.parent = &parent;
}

// T1 upwards, as far as a key is another one now.
void RangeTree::passKeyUp(Node& node) {
  Node* child = &node;
  for (Branch* parent = child->parent; parent != nullptr; parent = child->parent) {
    const unsigned int at = indexOf(*parent, *child);
    parent->key[at] = lastKey(*child);
    if (at + 1 != parent->count) return;
    child = parent;
  }
}

void RangeTree::mergeIfSmall(Node& node) {
  if (node.count >= kSmall || node.parent == nullptr) return;
  Branch& parent = *node.parent;
  const unsigned int at = indexOf(parent, node);
  if (at + 1 < parent.count && node.count + parent.child[at + 1]->count <= kMerged)
    mergeInto(node, *parent.child[at + 1]);
  else if (at > 0 && node.count + parent.child[at - 1]->count <= kMerged)
    mergeInto(*parent.child[at - 1], node);
}

// Neighbours below one branch.
void RangeTree::mergeInto(Node& left, Node& right) {
  Branch& parent = *left.parent;
  const unsigned int at = indexOf(parent, left);
  moveTail(right, 0, left);
  parent.key[at] = lastKey(left);
  lowerBound(parent, at, std::max(parent.value[at], parent.value[at + 1]));
  removeEmpty(right);
}

void RangeTree::removeSlot(Node& node, unsigned int at) {
  closeSlot(node.key, node.count, at);
  closeSlot(node.value, node.count, at);
  if (!node.isLeaf) closeSlot(branchOf(node).child, node.count, at);
  node.key[--node.count] = kNoKey;  // T2
  if (at == node.count && at > 0) passKeyUp(node);
}

void RangeTree::removeEmpty(Node& node) {
  if (node.parent == nullptr) return;  // T4: the root is a leaf
  Branch& parent = *node.parent;
  if (node.isLeaf) {
    if (&node == first_) first_ = first_->next;
    unlink(leafOf(node));
  }
  removeSlot(parent, indexOf(parent, node));
  deleteNode(node);
  if (parent.count == 0) return removeEmpty(parent);
  mergeIfSmall(parent);
  lowerRoot();
}

// Appends the slots of `from` from `begin` on to those of `to`.
void RangeTree::moveTail(Node& from, unsigned int begin, Node& to) {
  const unsigned int moved = from.count - begin;
  std::copy_n(from.key + begin, moved, to.key + to.count);
  std::copy_n(from.value + begin, moved, to.value + to.count);
  if (from.isLeaf) {
    if (current_.leaf == &from && current_.at >= begin)
      current_ = {&leafOf(to), current_.at - begin + to.count};
  } else {
    std::copy_n(branchOf(from).child + begin, moved, branchOf(to).child + to.count);
    std::for_each_n(branchOf(from).child + begin, moved,
                    [&to](Node* child) { child->parent = &branchOf(to); });
  }
  to.count += moved;
  from.count = begin;
  std::fill_n(from.key + begin, moved, kNoKey);  // T2
}

void RangeTree::lowerRoot() {
  while (!root_->isLeaf && root_->count == 1) {
    Node* const old = root_;
    root_ = branchOf(*old).child[0];
    root_->parent = nullptr;
    deleteNode(*old);
  }
}

}  // namespace kl::ranges
