#pragma once
// entry_table.h: where the blob of each entry lies, found without walking the map.

#include <cstddef>
#include <vector>

#include "base/id_index.h"
#include "store/files/format.h"

namespace kl {

// A table of where each entry's blob lies, for reads and writes in place.  The map has a node somewhere in memory for
// each step of a search; of a large store most of them are in no cache, and here one is asked for.
//
// Errors:    none.
// Threads:   belongs to its store.
// Cost:      constant time; at most half of the rows are in use, 12 bytes each.
class EntryTable {
 public:
  struct Row {
    unsigned int entry = kFreeId;  // the id, which no entry has while the row is free
    unsigned int offset = 0;       // of the slot in the data file, in bytes
    unsigned int size = 0;         // of the slot in bytes

    unsigned int id() const { return entry; }
    bool isFree() const { return entry == kFreeId; }
  };

  EntryTable() = default;
  EntryTable(const EntryTable&) = delete;
  EntryTable& operator=(const EntryTable&) = delete;

  // A new one, or in place of what the id had.
  void put(const Row& row);
  void erase(unsigned int id);
  // Null if there is none.  Valid until the next change.
  const Row* find(unsigned int id) const { return rows_.empty() ? nullptr : index_.find(id); }
  void clear();

 private:
  void grow();

  std::vector<Row> rows_;  // a power of two of them, or none
  IdIndex<Row> index_;     // over rows_
  std::size_t used_ = 0;
};

}  // namespace kl
