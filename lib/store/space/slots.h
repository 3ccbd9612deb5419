#pragma once
// slots.h: which entry is in which slot, which slots are free, and what the index file has not taken yet.

#include <optional>
#include <vector>

#include "kl/store.h"
#include "store/files/format.h"
#include "store/files/store_files.h"
#include "store/space/entry_table.h"
#include "store/space/free_slots.h"

namespace kl {

// A slot as the index has it, with an entry in it and without one.
inline IndexSlot slotWith(unsigned int id, const Store::Entry& entry) {
  return {id, entry.size, entry.lifetime};
}
inline IndexSlot vacantSlot(const Store::Entry& entry) { return slotWith(kFreeId, entry); }

// The slots that the index file has not taken yet, and will be given with the next change.
struct Backlog {
  // Free slots at its end that it does not have, because it took no more.
  std::vector<Store::Entry> unwritten;
  // Free slots that it still has under an id, because it took no write.  Each of them once.
  std::vector<Store::Entry> unfreed;

  bool isUnwritten(unsigned int slot) const { return !unwritten.empty() && slot >= unwritten.front().slot; }
  [[gnu::cold]] void addUnfreed(const Store::Entry& entry);
  void noteWritten(unsigned int slot) {
    if (!unfreed.empty()) forgetUnfreed(slot);
  }
  void clear();

 private:
  [[gnu::cold]] void forgetUnfreed(unsigned int slot);
};

// A slot of new files, with an entry in it.
struct CopiedSlot {
  unsigned int id;
  unsigned int offset;
};

// All slots of a store in memory.
//
// Errors:    none; nothing here knows of files.
// Threads:   belongs to its store.
// Cost:      set, removal and search take time logarithmic in the number of entries and of free slots.
class Slots {
 public:
  using Entry = Store::Entry;

  const Store::Entries& entries() const { return entries_; }
  // The blob's slot in the data file, for reading and rewriting; null if there is no such entry.
  const EntryTable::Row* find(unsigned int id) const { return table_.find(id); }
  // Null if there is none.
  Entry* entryOf(unsigned int id);
  // The end of entries() if there is none.
  Store::Entries::iterator seek(unsigned int id) { return entries_.find(id); }

  // The length of the data file that these slots fill.
  unsigned int dataBytes() const { return dataBytes_; }
  // Whether their sizes add up to a data file of that length.
  bool addUpTo(long long dataBytes) const;
  // Whether so much is free that a compaction is worth it.
  bool areBloated() const;
  // The lengths of both files if they had no free slots.
  FileLengths lengthsWithoutFree() const;

  [[gnu::cold]] void clear();
  // Takes up the next slot of an index.
  void append(const IndexSlot& slot);

  // An entry that goes to another slot.
  struct Move {
    Entry& entry;               // as it is now, valid until it is removed
    std::optional<Entry> left;  // as it was; nothing if it is new
    std::optional<Entry>
        hole;  // the free slot that it got, as that was; nothing if its slot is a new one at the end
  };
  // Gives an entry, which is made with `lifetime` if there is none, the first free slot of at least so many bytes, or
  // else a new one.  The slot that it left stays taken until freeLeft().
  Move move(unsigned int id, unsigned int lifetime, unsigned int needBytes);
  void freeLeft(const Move& move);
  // Forgets the entry, and frees its slot.
  void remove(Store::Entries::iterator entry);
  // The same for an entry whose slot could not be filled.
  [[gnu::cold]] void drop(unsigned int id);

  // Goes on with the slots of new files, of which none is free and which fill so many bytes.
  [[gnu::cold]] void rearrange(const std::vector<CopiedSlot>& copied, unsigned int dataBytes);

  Backlog& backlog() { return backlog_; }

 private:
  std::optional<Entry> allocate(Entry& entry, unsigned int needBytes);
  void countFreed(const Entry& entry);

  Store::Entries entries_;
  EntryTable table_;  // of entries_
  FreeSlots free_;
  Backlog backlog_;
  unsigned int dataBytes_ = 0;
  unsigned int count_ = 0;
  unsigned int freeBytes_ = 0;  // of the free slots that count towards bloat
  unsigned int freeCount_ = 0;
  bool exceedsFile_ = false;  // there are slots beyond what any data file holds
};

}  // namespace kl
