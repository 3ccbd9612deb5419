// How a tree of words grows and shrinks: a full node is split, one that is nearly empty merges with its neighbour, an
// empty one goes.  The invariants are those of word_tree.cpp.
//
// Memory follows the words: a node that has lost most of its slots finds room in a neighbour unless that is nearly
// full, and what comes in ascending or in descending order fills its nodes.

#include <algorithm>

#include "ids/word_slots.h"
#include "ids/word_tree.h"

namespace kl::words {
namespace {

constexpr int kSmall = kWidth / 4;       // below it a node looks for a neighbour to merge with,
constexpr int kMerged = kWidth * 3 / 4;  // if both together have no more than this

int indexOf(const Branch& parent, const Node& child) {
  int at = 0;
  while (parent.child[at] != &child) ++at;
  return at;
}

void deleteNode(Node& node) {
  if (node.isLeaf) delete &leafOf(node);
  else delete &branchOf(node);
}

Leaf& newLeafBehind(Leaf& leaf) {
  auto* fresh = new Leaf;
  fresh->previous = &leaf;
  fresh->next = leaf.next;
  if (fresh->next != nullptr) fresh->next->previous = fresh;
  leaf.next = fresh;
  return *fresh;
}

}  // namespace

// Makes room in a full node for what has this key and belongs at `at`.  The node gives its upper half away; one that
// grows at an end or beside it is cut there, and may be full or empty then.  Gives the new node to the right; the slot
// is there if it does not belong, or does not fit, into the old one.
Node& WordTree::split(Node& node, int at, int key) {
  const int begin = at <= 1 || at >= kWidth - 1 ? at : kWidth / 2;
  const int firstKey = begin == kWidth ? key : node.key[begin];
  Node& right = node.isLeaf ? static_cast<Node&>(newLeafBehind(leafOf(node))) : *new Branch;
  moveTail(node, begin, right);
  if (!right.isLeaf && right.count > 0) right.key[0] = kLowestKey;  // T1
  addSibling(node, right, firstKey);
  return right;
}

void WordTree::addSibling(Node& left, Node& right, int key) {
  if (left.parent == nullptr) {
    auto* root = new Branch;
    root->count = 1;
    root->child[0] = &left;
    root->key[0] = kLowestKey;
    root_ = left.parent = root;
  }
  Branch* parent = left.parent;
  int at = indexOf(*parent, left) + 1;
  if (parent->count == kWidth) {
    Branch& upper = branchOf(split(*parent, at, key));
    const int kept = parent->count;
    if (at > kept || kept == kWidth) {
      parent = &upper;
      at -= kept;
    }
  }
  openSlot(parent->key, parent->count, at);
  openSlot(parent->child, parent->count, at);
  ++parent->count;
  parent->key[at] = at == 0 ? kLowestKey : key;
  parent->child[at] = &right;
  right.parent = parent;
}

// Appends the slots of `from` from `begin` on to those of `to`.
void WordTree::moveTail(Node& from, int begin, Node& to) {
  const int moved = from.count - begin;
  std::copy_n(from.key + begin, moved, to.key + to.count);
  if (from.isLeaf) {
    std::copy_n(leafOf(from).word + begin, moved, leafOf(to).word + to.count);
    if (mark_.leaf == &from && mark_.at >= begin) mark_ = {&leafOf(to), mark_.at - begin + to.count};  // T5
  } else {
    std::copy_n(branchOf(from).child + begin, moved, branchOf(to).child + to.count);
    std::for_each_n(branchOf(from).child + begin, moved,
                    [&to](Node* child) { child->parent = &branchOf(to); });
  }
  to.count += moved;
  from.count = begin;
  std::fill_n(from.key + begin, moved, kNoKey);  // T2
}

void WordTree::mergeIfSmall(Node& node) {
  if (node.count >= kSmall || node.parent == nullptr) return;
  const Branch& parent = *node.parent;
  const int at = indexOf(parent, node);
  if (at + 1 < parent.count && node.count + parent.child[at + 1]->count <= kMerged)
    mergeInto(node, *parent.child[at + 1]);
  else if (at > 0 && node.count + parent.child[at - 1]->count <= kMerged)
    mergeInto(*parent.child[at - 1], node);
}

// Neighbours below one branch.
void WordTree::mergeInto(Node& left, Node& right) {
  forget(left);
  if (!right.isLeaf) right.key[0] = right.parent->key[indexOf(*right.parent, right)];
  moveTail(right, 0, left);
  remove(right);
}

// Takes out a node that has become empty.  Its numbers belong to the node before it from then on; those of the
// lowest one to the next, as key 0 stays.
void WordTree::remove(Node& node) {
  if (node.parent == nullptr) return;  // T3: the root is a leaf
  Branch& parent = *node.parent;
  const int at = indexOf(parent, node);
  if (node.isLeaf) unlink(leafOf(node));
  deleteNode(node);
  closeSlot(parent.child, parent.count, at);
  if (parent.count > 1) closeSlot(parent.key, parent.count, std::max(at, 1));
  parent.key[--parent.count] = kNoKey;  // T2
  if (parent.count == 0) return remove(parent);
  mergeIfSmall(parent);
  lowerRoot();
}

void WordTree::unlink(Leaf& leaf) {
  if (leaf.previous != nullptr) leaf.previous->next = leaf.next;
  else first_ = leaf.next;
  if (leaf.next != nullptr) leaf.next->previous = leaf.previous;
}

void WordTree::lowerRoot() {
  while (!root_->isLeaf && root_->count == 1) {
    Node* const old = root_;
    root_ = branchOf(*old).child[0];
    root_->parent = nullptr;
    deleteNode(*old);
  }
}

}  // namespace kl::words
