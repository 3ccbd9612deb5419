// A tree of wide nodes: words stand in leaves.  A search looks at eleven keys of a branch and takes no decision that
// depends on them; in a leaf it looks first where the word stands if all words from the first one on are there.
//
// T1  keys ascend; a branch's key 0 is kLowestKey, so that there is a child for every number
// T2  slots behind the last one have the key kNoKey, so that a search needs no count
// T3  leaves are linked in their order; only a root that is a leaf is empty
// T4  below a node whose largest range is known, those of all nodes are known
// T5  the mark follows its word
//
// The keys of a branch part its children and need not be there as words: when a word goes, no branch changes.
// How nodes are split and merged is in word_tree_shape.cpp.

#include "ids/word_tree.h"

#include <algorithm>

#include "ids/word_slots.h"

namespace kl::words {
namespace {

constexpr int kGroup = 8;  // keys that are counted one by one

// Two short counts, without a branch that depends on the keys: which group of eight, and how many of it.
inline int countUpTo(const Node& node, int number) {
  int groups = 0;
  if (node.count > kGroup)
    for (int end = kGroup - 1; end < kWidth - 1; end += kGroup) groups += node.key[end] <= number ? 1 : 0;
  const int* const group = node.key + kGroup * groups;
  int count = kGroup * groups;
  for (int i = 0; i < kGroup; ++i) count += group[i] <= number ? 1 : 0;
  return count;
}

void deleteAll(Node& node) {
  if (node.isLeaf) {
    delete &leafOf(node);
    return;
  }
  std::for_each_n(branchOf(node).child, node.count, [](Node* child) { deleteAll(*child); });
  delete &branchOf(node);
}

}  // namespace

Node::Node(bool leaf) : isLeaf(leaf) { std::fill(key, key + kWidth, kNoKey); }

WordTree::WordTree() : root_(nullptr), first_(new Leaf) { root_ = first_; }

WordTree::~WordTree() { deleteAll(*root_); }

// Like find(), but in the leaf where a word with this number belongs.
inline Place WordTree::route(int number) const {
  Node* node = root_;
  while (!node->isLeaf) node = branchOf(*node).child[countUpTo(*node, number) - 1];
  Leaf& leaf = leafOf(*node);
  const unsigned int guess = static_cast<unsigned int>(number) - static_cast<unsigned int>(leaf.key[0]);
  if (guess < kWidth && leaf.key[guess] == number) return {&leaf, static_cast<int>(guess)};
  return {&leaf, countUpTo(leaf, number) - 1};
}

Place WordTree::find(int number) const {
  const Place place = route(number);
  return place.isWord() ? place : previous({place.leaf, 0});
}

Place WordTree::next(Place place) {
  if (++place.at < place.leaf->count) return place;
  return {place.leaf->next, place.leaf->next != nullptr ? 0 : -1};
}

Place WordTree::previous(Place place) {
  if (place.at > 0 || place.leaf->previous == nullptr) return {place.leaf, place.at - 1};
  return {place.leaf->previous, place.leaf->previous->count - 1};
}

// For a number behind the last word of a leaf, the next leaf may be the right one.
Place WordTree::insert(Place found, int number, Word word) {
  Place place = found.isWord() && found.at + 1 < found.leaf->count ? found : route(number);
  ++place.at;
  forget(*place.leaf);
  if (place.leaf->count == kWidth) {
    Leaf& right = leafOf(split(*place.leaf, place.at, number));
    const int kept = place.leaf->count;
    if (place.at > kept || kept == kWidth) place = {&right, place.at - kept};
  }
  Leaf& leaf = *place.leaf;
  openSlot(leaf.key, leaf.count, place.at);
  openSlot(leaf.word, leaf.count, place.at);
  leaf.key[place.at] = number;
  leaf.word[place.at] = word;
  ++leaf.count;
  if (mark_.leaf == &leaf && mark_.at >= place.at) ++mark_.at;  // T5
  return place;
}

void WordTree::erase(Place place) {
  Leaf& leaf = *place.leaf;
  forget(leaf);
  closeSlot(leaf.key, leaf.count, place.at);
  closeSlot(leaf.word, leaf.count, place.at);
  leaf.key[--leaf.count] = kNoKey;  // T2
  if (mark_ == place) mark_ = {};
  else if (mark_.leaf == &leaf && mark_.at > place.at) --mark_.at;  // T5
  if (leaf.count == 0) remove(leaf);
  else mergeIfSmall(leaf);
}

// T4 upwards.
void WordTree::forget(Node& node) {
  for (Node* n = &node; n != nullptr && n->largest != kUnknown; n = n->parent) n->largest = kUnknown;
}

}  // namespace kl::words
