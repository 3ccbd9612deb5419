#pragma once
// kl/store.h: messages kept on disk, each under a number, for the next start of the service.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kl/export.h"
#include "kl/message.h"
#include "kl/runner.h"

namespace kl {

// A set of messages, each under a 32-bit id, in two files.  A message that was set is there again after a restart:
//
//     kl::Store routes("/kelo/routes/table", 3);       // creates /kelo/routes, loads what is there
//     routes.set(17, m);
//     for (const auto& [id, entry] : routes.entries()) use(id, routes.get(id));
//     routes.batch({{17, m}, {18, n}}, {9});           // both are set and entry 9 is removed, or nothing happens
//     routes.age();                                    // entries whose third call this is go; touch() prevents it
//
// P being the path, the files are P.idx, P.dat and P.lock; docs/store.md has their bytes.  Changes go to the
// files at once and are made durable by one pair of fsync(2) half a second later (50 ticks); space that
// removed and grown messages leave behind is used again, and given back by a compaction a minute (6000 ticks)
// after the store became bloated: at least nine free slots that take more than an eighth of the data.  Without a
// Runner in the process both happen at once.
//
// Each entry has a lifetime counter that only age() counts; how often that is called is the owner's choice.
//
// Each change is noted in P.lock before it is made.  After a kill of the process every entry has its last value, and
// the one whose change was under way its old or its new one; the next store that is opened sees to it.
//
// Several processes may open the same files: each change is made under a lock on P.lock, for which a process
// waits.  The lock keeps each write whole; what another process changed is seen when a store is constructed, so two
// that both add entries write over each other's.
//
// Errors:    nothing is thrown.  An operation that fails prints one line that begins with "STORE: " on standard output
//            and gives a neutral result: false, an empty message, or nothing.
// Ownership: owns its descriptors and its timers; the timers borrow the Store until it is destroyed.  A
//            resource, so it is not copied.
// Threads:   one thread uses a store; with a Runner the thread that runs it.
// Cost:      set, get, remove and touch take a handful of system calls and time logarithmic in the number of
//            entries and of free slots.  Memory: some 110 bytes an entry, some 40 a free slot.
class KL_API Store {
 public:
  // The place of an entry.  There is one for every slot, free or not.
  struct Entry {
    unsigned int offset = 0;    // of the slot in the data file, in bytes
    unsigned int size = 0;      // of the slot in bytes; the blob in it may be shorter
    unsigned int slot = 0;      // its number in the index
    unsigned int lifetime = 0;  // how many calls of age() it has left
  };
  using Entries = std::map<unsigned int, Entry>;

  // The cost of a loss of power.
  enum class Durability {
    kFlushed,  // unsynced changes, and the whole store if the two lengths end up inconsistent
    kPowerLoss,  // what was changed since the last flush, never the store.  One more sync with the first new slot
                 // after a flush, one more with each flush.
  };

  // Opens the store P = `path` or makes an empty one, parent directories included.  Files that disagree with
  // each other, or that cannot be read, are replaced by empty ones.  `lifetime` is what an entry gets when it
  // is first stored.
  Store(const std::string& path, unsigned int lifetime, Durability durability = Durability::kFlushed);
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  // Closes the files.  The last changes are in them, but not made durable.
  ~Store();

  // Stores `m`, or replaces what is stored under `id`; the lifetime of an entry that is there stays.
  // Id 0xFFFFFFFF marks free slots in the files and is refused with a line.
  // Needs: at most 65,533 flattened bytes.  A longer message is written with a wrapped length and cannot be
  // read back.
  void set(unsigned int id, const message& m);

  // The stored message; an empty one if there is none or it cannot be read.
  message get(unsigned int id);

  // False if there is none.
  bool remove(unsigned int id);

  // Gives an entry this many further calls of age().  Nothing happens if there is none.
  void touch(unsigned int id, unsigned int lifetime);

  // Several changes as one: stores each message of `set` under its id, and removes the entries of `removed`; an id that
  // is in both is stored.  Either all of it happens or nothing, whenever the process is killed and whichever write fails;
  // with Durability::kPowerLoss also when power is lost, and everything is durable then.  False, and one line, if nothing
  // happened: a message has id 0xFFFFFFFF, the disk has no room, or the lock is not to be had.
  // Cost: what is written is written twice, once as a note; old values keep their room until the end.
  using Messages = std::map<unsigned int, message>;
  bool batch(const Messages& set, const std::vector<unsigned int>& removed = {});

  // Counts the lifetime of each entry down by one; entries that have 1 or 0 are removed.
  void age();

  // The ids in ascending order, and where their messages lie.  Valid until the store is next changed.
  const Entries& entries() const;

  // Removes the three files.  For an owner that discards the store: the object stays as it was.
  void deleteFiles();

  // Makes the store and both files empty.
  void restart();

  // --- Mechanism.  An owner needs none of it. -------------------------------------------------------

  // Makes both files durable: 50 ticks from now, or at once without a Runner.
  void flush();
  // Makes both files durable now.
  void doFlush();

  // Sees to a compaction in 6000 ticks, or at once without a Runner, if the store is bloated.
  void checkForBloat();
  // Compacts now if the store is bloated.
  void doCompaction();
  // Rewrites both files without their free slots.  With `convert` they are in the older, big-endian layout.
  // The old files stay if the new ones cannot be made, find no room or cannot replace them.  A store whose files
  // cannot be read or written half way through ends up empty.
  void compact(bool convert);

  // Rebuilds what is in memory from the index.  False, and an unfinished state, if it cannot be read or
  // disagrees with the data file.  With `convert` the files are in the older layout and are rewritten;
  // without, both layouts are tried.
  bool readIndex(bool convert);

  // The message of the blob at an offset of the data file; an empty one if it cannot be read.
  message readMsg(unsigned int offset);
  // Writes one blob.  `bytes` is a flattened message.
  bool writeMsg(unsigned int offset, const std::vector<unsigned char>& bytes);
  // Writes slot e.slot of the index as (id, e.size, e.lifetime).  Id 0xFFFFFFFF frees the slot.
  bool writeIndexent(unsigned int id, Entry& e);

  // Open a file that exists, once.
  bool openIdx();
  bool openData();
  void closeIdx();
  void closeData();

  // Forgets all entries and slots; the files stay as they are.
  void cleanup();

 private:
  class Core;  // all that it consists of

  std::unique_ptr<Core> core_;
};

// The contents of a store's files, for those who look at a store that is not theirs.  Nothing is printed or changed,
// files of the older layout included:
//
//     const kl::StoreView view("/kelo/routes/table");
//     for (const auto& entry : view.entries()) show(entry.id, view.get(entry));
//     for (const auto& finding : view.findings()) complain(finding);
//
// A process that changes the store meanwhile is no fault: the files are read until two readings agree, and the view
// is that state of the store.  If none of five do, they are read once more under the lock, for which changes wait.  If
// a writer does not let go of that for a second, the view is what was read, and what does not fit is taken for the change
// that is under way: only missing files are findings then.
//
// Errors:    nothing is thrown.  Unreadable entries are missing, and findings() says why.
// Ownership: owns copies of all messages and holds no file open.
// Threads:   any, but not while the process's Looper begins or ends.  It closes the lock file, which makes the process
//            lose a lock that a Store of another thread has on it at this moment.
// Cost:      the constructor reads the index and every blob in use, twice if nobody disturbs it; memory grows with
//            both.
class StoreView {
 public:
  struct Entry {
    unsigned int id;
    unsigned int offset;    // of the slot in the data file, in bytes
    unsigned int size;      // of the slot in bytes
    unsigned int slot;      // its number in the index
    unsigned int lifetime;  // how many calls of Store::age() it has left

    friend bool operator==(const Entry&, const Entry&) = default;
  };
  struct FreeSlot {
    unsigned int offset;
    unsigned int size;
    unsigned int slot;

    friend bool operator==(const FreeSlot&, const FreeSlot&) = default;
  };

  enum class Fault : unsigned char {
    kNoIndex,       // there is no index, or it cannot be read
    kNoData,        // the same of the data file
    kSizeMismatch,  // the slots do not fill the data file in either byte order: a Store would start empty
    kPartialSlot,   // the index ends inside a slot
    kPendingChange,  // the lock file has a change that nobody is at work on; the next change of a Store sees to it
    kRepeatedId,  // of the slot: another slot before it has this id, and that one counts
    kBadLength,   // of the slot: the length at its start does not fit into it
    kCutOff,      // of the slot: the data file ends inside the blob
    kBadMessage,  // of the slot: the blob is no message
  };
  struct Finding {
    Fault fault;
    unsigned int slot;  // of faults of a slot, else 0
    unsigned int id;    // of the entry in it

    friend bool operator==(const Finding&, const Finding&) = default;
  };

  // Reads the store P = `path`.
  explicit StoreView(const std::string& path);

  // These are in the order of the slots.
  const std::vector<Entry>& entries() const { return state_.entries; }
  const std::vector<FreeSlot>& freeSlots() const { return state_.freeSlots; }
  const std::vector<Finding>& findings() const { return state_.findings; }

  // Whether the files are of the older, big-endian layout.
  bool isBigEndian() const { return state_.isBigEndian; }
  // The length of the data file in bytes.
  unsigned long long dataBytes() const { return state_.dataBytes; }

  // The entry with this id; null if there is none.  Valid as long as the view is.
  const Entry* find(unsigned int id) const;
  // The message of one of its entries: what of it can be read.
  message get(const Entry& entry) const;

 private:
  // The result of one reading of the files.
  struct State {
    std::vector<Entry> entries;
    std::vector<FreeSlot> freeSlots;
    std::vector<Finding> findings;
    std::vector<unsigned char> messages;  // of the entries, back to back
    std::vector<std::size_t> ends;        // where each of them ends
    unsigned long long dataBytes = 0;
    bool isBigEndian = false;

    friend bool operator==(const State&, const State&) = default;
  };
  class Reading;

  State state_;
};

}  // namespace kl
