#pragma once
// id_index.h: finds the entry of an id in constant time, for lists and tables that are long.

#include <cstddef>
#include <cstdint>

namespace kl {

// A number that peers cannot know, the same for the life of the process.
std::uint64_t idHashFactor();
// Do ids that follow each other get homes that lie apart?
bool spreadsIdsInARow(std::uint64_t factor);

// Open addressing with linear probing over entries that lie in memory of the owner's.  `Entry` has id() and isFree(); a
// default-made one is free.  The order of entries means nothing, and as the hash is secret, a peer cannot choose ids
// that collide.
//
// Errors:    none.
// Ownership: borrows the entries until it is made anew.
// Threads:   find() only reads.
// Cost:      constant, as long as at most half of the entries are in use.
template <class Entry>
class IdIndex {
 public:
  constexpr IdIndex() = default;
  // Needs: `size` is a power of two above 1.  All entries become free.
  IdIndex(Entry* entries, std::size_t size, std::uint64_t factor = idHashFactor())
      : entries_(entries), size_(size), factor_(factor) {
    for (std::size_t i = 0; i < size; ++i) entries_[i] = Entry{};
    for (std::size_t n = size; n > 1; n /= 2) --shift_;
  }

  Entry* entries() const { return entries_; }
  std::size_t size() const { return size_; }

  // Null if the id is not in the index.
  Entry* find(std::uint32_t id) const {
    Entry* entry = findOrFree(id);
    return entry->isFree() ? nullptr : entry;
  }
  // The next entry under the same id as `entry`, which find() or this function gave; null behind the last.
  Entry* findNext(const Entry* entry) const {
    std::size_t i = next(static_cast<std::size_t>(entry - entries_));
    while (!entries_[i].isFree() && entries_[i].id() != entry->id()) i = next(i);
    return entries_[i].isFree() ? nullptr : &entries_[i];
  }
  // The entry of the id, or else the free entry that it may be put into.
  Entry* findOrFree(std::uint32_t id) const {
    std::size_t i = home(id);
    while (!entries_[i].isFree() && entries_[i].id() != id) i = next(i);
    return &entries_[i];
  }
  // Needs: half of the entries are free.
  Entry* add(const Entry& entry) {
    std::size_t i = home(entry.id());
    while (!entries_[i].isFree()) i = next(i);
    entries_[i] = entry;
    return &entries_[i];
  }
  // Later entries of the run move up, so that a run has no holes.  Needs: `entry` came from find().
  void remove(Entry* entry) {
    std::size_t hole = static_cast<std::size_t>(entry - entries_);
    for (std::size_t i = next(hole); !entries_[i].isFree(); i = next(i)) {
      if (distance(home(entries_[i].id()), i) < distance(hole, i)) continue;
      entries_[hole] = entries_[i];
      hole = i;
    }
    entries_[hole] = Entry{};
  }

 private:
  std::size_t home(std::uint32_t id) const { return static_cast<std::size_t>((id + 1) * factor_ >> shift_); }
  std::size_t next(std::size_t i) const { return (i + 1) & (size_ - 1); }
  std::size_t distance(std::size_t from, std::size_t to) const { return (to - from) & (size_ - 1); }

  Entry* entries_ = nullptr;
  std::size_t size_ = 0;
  std::uint64_t factor_ = 1;
  unsigned int shift_ = 64;
};

}  // namespace kl
