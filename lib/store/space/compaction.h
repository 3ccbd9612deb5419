#pragma once
// compaction.h: copies the slots that have an entry from the files of a store to new ones.

#include <vector>

#include "store/files/format.h"
#include "store/files/store_files.h"
#include "store/space/new_files.h"
#include "store/space/slots.h"

namespace kl {

// One pass over the old index.  The store stays what it was, in memory, too.
//
// Errors:    what fails prints its line and ends the pass.
// Ownership: borrows all three.
class Compaction {
 public:
  // `order` is that of the old files.
  Compaction(const StoreFiles& old, Slots& slots, const NewFiles& fresh, ByteOrder order)
      : old_(old), slots_(slots), fresh_(fresh), order_(order), buffer_(kCopyBytes) {}

  bool copyEntries();

  // The slots of the new files in their order, and the bytes that they fill.
  const std::vector<CopiedSlot>& copied() const { return copied_; }
  unsigned int dataBytes() const { return dataBytes_; }

 private:
  static constexpr std::size_t kCopyBytes = 65536;

  bool isLeft(unsigned int slot, unsigned int id) const;
  bool copySlot(const IndexSlot& slot);
  bool copyBlob(const Store::Entry& entry, unsigned int size);
  bool repeatBlob(const EntryTable::Row& first, unsigned int size);
  bool fillTo(unsigned long long end) const;
  void turnLength();

  const StoreFiles& old_;
  Slots& slots_;
  const NewFiles& fresh_;
  ByteOrder order_;
  std::vector<unsigned char> buffer_;
  std::vector<CopiedSlot> copied_;
  EntryTable firsts_;  // the first copied slot of each entry
  unsigned int dataBytes_ = 0;
};

}  // namespace kl
