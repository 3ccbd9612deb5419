#pragma once
// core.h: what a store holds beside what kl/store.h shows.

#include <string>
#include <vector>

#include "base/file_io.h"
#include "kl/store.h"
#include "store/files/index_reader.h"
#include "store/journal/file_lock.h"
#include "store/journal/journal_entries.h"
#include "store/space/free_slots.h"
#include "store/space/entry_table.h"

namespace kl {

struct __attribute__((visibility("hidden"))) Store::Internals {
  Internals(const std::string& path, Durability wanted) : lock(path), durability(wanted) {}
  ~Internals() { dropHeldData(); }

  // Open a file that exists, once, without a word.
  static bool openIdx(Store& store);
  static bool openData(Store& store);

  // Opens the data file that belongs to the open index, for the first use of it: when that comes, another process
  // may have replaced both.
  static bool holdData(Store& store);
  static int heldData(const Store& store);
  void dropHeldData();

  // Makes the files that are open durable.
  static void sync(const Store& store);

  // Loads the index without the lock and without a word.  False if anything is amiss.
  static bool looksWhole(Store& store);
  // The slots that were loaded fill a data file of that length.
  static bool fits(const Store& store, long long dataBytes);
  // Writes one record, given in two pieces, under the lock.
  static bool writeRecord(Store& store, unsigned int offset, Bytes first, Bytes second);

  // Adds every slot of the index.
  static IndexReader::End readSlots(Store& store, ByteOrder order);

  // False if the files are still in the older layout because their conversion failed, now once more; it has said why.
  static bool isConverted(Store& store);

  bool isUnwritten(unsigned int slot) const {
    return !unwrittenSlots.empty() && slot >= unwrittenSlots.front().slot;
  }

  FreeSlots freeSlots;
  RecordPlaces places;  // of entries_
  FileLock lock;
  Durability durability;
  FileIds ids;                    // of the files that are open
  int heldDataFd = -1;            // of the data file, until it is used
  unsigned int timerRunner = 0;   // the number of the Runner that the two timers belong to
  unsigned int changes = 0;       // that are under way
  bool areLengthsDurable = true;  // with Durability::kPowerLoss: those that the files had at the last flush
  bool isOlderLayout = false;     // the files are, though their index has been read
  bool exceedsFile = false;       // the index has slots beyond what any data file holds
  bool isFlushWanted = false;     // at the end of the change, in a process without a Runner

  // Free slots at the end that the index file has no record of yet, because it took no more.
  std::vector<Entry> unwrittenSlots;
  // Free slots that the index file still has under an id, because it took no write.  Each of them once.
  std::vector<Entry> unfreedSlots;
};

}  // namespace kl
