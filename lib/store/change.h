#pragma once
// change.h: one change of a store's files, whole or not at all.

#include <optional>
#include <vector>

#include "store/core.h"

namespace kl {

// Holds the lock while one set, remove or touch changes the files, and notes beforehand in the journal what it is
// going to write, so that the next one to take the lock finishes a killed process's change.  Collect what will be
// written, note it, write it.
//
// Errors:    a change that cannot be noted (no lock, no room, a file that is missing) goes on without.
// Cost:      opening, locking, unlocking and closing the lock file, one look into it, one write, one truncation.
class __attribute__((visibility("hidden"))) Store::Core::Change {
 public:
  // Before anything else, catches up with the slots that earlier changes could not write.
  explicit Change(Core& core);
  Change(const Change&) = delete;
  Change& operator=(const Change&) = delete;
  // Drops the note, releases the lock, and syncs what a store without a Runner syncs at once.
  ~Change();

  void willWriteSlot(unsigned int id, const Entry& entry);
  // A slot that held this entry under `id` until now.
  void willFreeSlot(unsigned int id, const Entry& entry);
  // A slot that was free until now.
  void willFill(const Entry& hole);
  // The files grow by the slot of this entry, the first of several.
  void willAppend(const Entry& entry);
  void willWriteBlob(unsigned int offset, Bytes blob);

  // One of several; the bytes are copied.
  void willWriteOneBlob(unsigned int offset, Bytes blob);

  // A change of several parts can be noted, and taken back: nothing that earlier changes could not write is left.
  bool isWholeOrNothing() const;
  // Makes it: all of it, or nothing and false.
  bool carryOut();

  // Writes what was collected into the journal, or marks the end of the files where there is no room for that.
  void noteIntent();
  // Does nothing if the intent was noted.  Without room for it in the journal, writes the blob and then its slot in the
  // index before the old slot is freed, and reports nothing: the entry is never missing then, if it may be there twice.
  void writeFirstUnlessNoted(unsigned int id, const Entry& entry, Bytes blob);

  // With durable lengths: a new slot's id and its size come to disk together, before its blob does.
  void keepSlotWhole(const Entry& entry);

  // Frees the slot in the index; what the file does not take is tried again with the next change.
  void freeSlot(const Entry& entry);

  // Frees the slots that the index still has under an id.  Needs: the files are open.
  [[gnu::cold]] static void freeUnfreedSlots(Core& core);

 private:
  void withdraw();
  // Need: there are such slots.
  [[gnu::cold]] void writeUnwrittenSlots();
  [[gnu::cold]] bool extendFiles(const std::vector<Entry>& slots);

  Core& core_;
  std::optional<QuietLockGuard> guard_;
  std::optional<Intent> intent_;
  std::optional<FileLengths> before_;  // of a change that makes the files longer
  bool isWhole_ = false;               // the note
  bool isNoted_ = false;               // the journal holds something of this change
};

}  // namespace kl
