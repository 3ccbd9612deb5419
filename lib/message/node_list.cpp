// How the lists are linked, and how the index of a long list follows them.

#include "message/node_list.h"

#include <new>

namespace kl::container {

void NodeList::remove(const Place& place) {
  Node* const next = place.node->next;
  if (place.previous != nullptr) place.previous->next = next;
  else head_ = next;
  --count_;
  if (index_ == nullptr) return;
  index_->headEntry = nullptr;  // entries move up
  index_->remove(place.entry);
  if (next != nullptr) entryOf(next->id)->previous = place.previous;
}

void NodeList::replace(const Place& place, Node* node) {
  node->next = place.node->next;
  if (place.previous != nullptr) place.previous->next = node;
  else head_ = node;
  if (index_ == nullptr) return;
  place.entry->node = node;
  if (node->next != nullptr) entryOf(node->next->id)->previous = node;
}

void NodeList::reverse() {
  if (index_ != nullptr) index_->headEntry = nullptr;
  Node* reversed = nullptr;
  for (Node* node = head_; node != nullptr;) {
    Node* const next = node->next;
    if (index_ != nullptr) entryOf(node->id)->previous = next;
    node->next = reversed;
    reversed = node;
    node = next;
  }
  head_ = reversed;
}

std::size_t NodeList::growthCost() const {
  const bool grows = index_ == nullptr ? count_ >= kWalked : 2 * (count_ + 1) > index_->size();
  if (!grows) return 0;
  const std::size_t entries = index_ != nullptr ? 4 * index_->size() : 4 * kWalked;
  return Memory::arenaCost(roundedUp(sizeof(Index))) + Memory::arenaCost(entries * sizeof(Entry));
}

void NodeList::check() const {
  unsigned int nodes = 0;
  const Node* previous = nullptr;
  for (const Node* node = head_; node != nullptr; previous = node, node = node->next, ++nodes) {
    KL_INVARIANT(index_ != nullptr || (filter_ & filterBit(node->id)) != 0);  // L2
    const Place place = find(node->id);
    KL_INVARIANT(place.node == node);          // L1
    KL_INVARIANT(place.previous == previous);  // L3
  }
  KL_INVARIANT(nodes == count_);
}

NodeList::Entry* NodeList::entryOf(unsigned int id) const { return index_->findOrFree(id); }

// L3: the node that becomes the head; it is counted and linked already.  `entry` is free for it, or null.
void NodeList::enter(Entry* entry, Node* node, Memory& memory) {
  if (entry != nullptr && 2 * count_ <= index_->size()) {
    *entry = {node, nullptr};
  } else {
    if (index_ == nullptr) makeIndex(4 * kWalked, memory);
    else if (2 * count_ > index_->size()) makeIndex(4 * index_->size(), memory);
    entry = index_->add({node, nullptr});
  }
  if (head_ != nullptr)
    (index_->headEntry != nullptr ? index_->headEntry : entryOf(head_->id))->previous = node;
  index_->headEntry = entry;
}

// Over the nodes from the head.
void NodeList::makeIndex(std::size_t size, Memory& memory) {
  auto* entries = static_cast<Entry*>(memory.take(size * sizeof(Entry)));
  if (index_ == nullptr) index_ = static_cast<Index*>(memory.take(roundedUp(sizeof(Index))));
  else memory.give(index_->entries(), index_->size() * sizeof(Entry));
  new (index_) Index(entries, size);
  Node* previous = nullptr;
  for (Node* node = head_; node != nullptr; previous = node, node = node->next) index_->add({node, previous});
}

}  // namespace kl::container
