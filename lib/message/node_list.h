#pragma once
// node_list.h: the two lists of a message, most recently added field first.
//
// L1  an id occurs at most once; a new node is the head
// L2  while there is no index, the filter has the bit of every id in the list
// L3  a list that ever had more than kWalked nodes has an index of all its nodes and their predecessors

#include <cstdint>

#include "base/id_index.h"
#include "message/node.h"

namespace kl::container {

// Order is fixed, searching is not: short lists are walked, long ones have an index.
//
// Errors:    none.
// Ownership: links nodes that lie in the representation's memory.
// Threads:   const operations only read.
// Cost:      every operation takes constant time.
class NodeList {
 public:
  struct Entry;
  struct Place {
    Node* node;      // null where the id is not in the list
    Node* previous;  // null at the head
    Entry* entry;    // where the list has an index: the id's, or a free one that it may be put into
  };

  struct Entry {
    Node* node = nullptr;
    Node* previous = nullptr;
    unsigned int id() const { return node->id; }
    bool isFree() const { return node == nullptr; }
  };

  constexpr NodeList() = default;
  NodeList(const NodeList&) = delete;
  NodeList& operator=(const NodeList&) = delete;

  Node* head() const { return head_; }
  unsigned int count() const { return count_; }

  Place find(unsigned int id) const {
    if (index_ != nullptr) {
      Entry* const entry = entryOf(id);
      return {entry->node, entry->previous, entry};
    }
    if ((filter_ & filterBit(id)) == 0) return {};
    return walkTo(id);
  }
  // Needs: the node's id is not in the list.  `entry` was just found for it, or is null.
  void push(Entry* entry, Node* node, Memory& memory) {
    node->next = head_;
    if (++count_ > kWalked || index_ != nullptr) enter(entry, node, memory);
    else filter_ |= filterBit(node->id);
    head_ = node;
  }
  // Unlinks the node of a place that was just found.
  void remove(const Place& place);
  // Puts a node of the same id where the place's node is.
  void replace(const Place& place, Node* node);

  // Makes the last node the first.
  void reverse();

  // The most that the next push() takes from an arena, the node aside.
  std::size_t growthCost() const;

  void check() const;

 private:
  static constexpr unsigned int kWalked = 16;

  // The head's entry, where it is known, saves the search when the next node comes.
  struct Index : IdIndex<Entry> {
    using IdIndex<Entry>::IdIndex;
    Entry* headEntry = nullptr;
  };

  static std::uint64_t filterBit(unsigned int id) {
    return std::uint64_t{1} << ((id ^ id >> 16 ^ id >> 27) & 63);
  }

  Place walkTo(unsigned int id) const {
    Node* previous = nullptr;
    for (Node* node = head_; node != nullptr; previous = node, node = node->next)
      if (node->id == id) return {node, previous, nullptr};
    return {};
  }
  Entry* entryOf(unsigned int id) const;
  void enter(Entry* entry, Node* node, Memory& memory);
  void makeIndex(std::size_t size, Memory& memory);

  Node* head_ = nullptr;
  Index* index_ = nullptr;
  std::uint64_t filter_ = 0;
  unsigned int count_ = 0;
};

}  // namespace kl::container
