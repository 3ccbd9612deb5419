#pragma once
// entry_table.h: where the record of each entry lies, found without walking the map.

#include <cstddef>
#include <vector>

#include "store/files/format.h"

namespace kl {

// What of a store's entries a read and a write in place need.  The map has a node somewhere in memory for each step of a
// search; of a large store most of them are in no cache, and here one is asked for.
//
// Errors:    none.
// Threads:   belongs to its store.
// Cost:      constant time; at most two thirds of the places are in use, 12 bytes each.
class RecordPlaces {
 public:
  struct Place {
    unsigned int id = kFreeId;  // which no entry has: nobody's
    unsigned int offset = 0;    // of the slot in the data file, in bytes
    unsigned int size = 0;      // of the slot in bytes
  };

  // A new one, or in place of what the id had.
  void put(const Place& place);
  void erase(unsigned int id);
  // Null if there is none.  Valid until the next change.
  const Place* find(unsigned int id) const;
  void clear();

 private:
  std::size_t homeOf(unsigned int id) const;
  std::size_t behind(std::size_t at) const { return (at + 1) & (places_.size() - 1); }
  std::size_t indexOf(unsigned int id) const;
  void grow();

  std::vector<Place> places_;  // a power of two of them, or none
  std::size_t used_ = 0;
};

}  // namespace kl
