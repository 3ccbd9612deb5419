#pragma once
// journal.h: what the lock file of a store holds: notes of the change that is under way, read after a kill.

#include <cstddef>
#include <string>

#include "store/files/store_files.h"
#include "store/journal/file_lock.h"
#include "store/journal/journal_entries.h"

namespace kl {

// The journal of one store.  It is empty at rest.  A caller that takes the lock calls recover() before anything else.
// Every other operation needs the lock; those that drop what the journal holds do nothing without it.
//
// Errors:    without a word; an entry that cannot be written whole is taken back.
// Cost:      recovery one system call if there is nothing to do; an entry one to write it and one to take it back.
class Journal {
 public:
  // With `survivesPowerLoss` it keeps the lengths that both files are known to have on disk.
  Journal(const std::string& basePath, bool survivesPowerLoss)
      : path_(basePath), lock_(basePath), survivesPowerLoss_(survivesPowerLoss) {}

  FileLock& lock() { return lock_; }
  bool survivesPowerLoss() const { return survivesPowerLoss_; }

  // --- Recovery (recovery.cpp)

  // Finishes what a process that was killed left half done, if `guard` has taken the lock just now.
  void recover(const LockGuard& guard);
  // The rest of it, which only a store that is opened may do: cuts back files that a loss of power made disagree, and
  // finishes or removes the new files of a compaction.
  void recoverFiles();

  // --- One change

  // Notes what is about to be written.  False if there is no room for that.
  bool note(Intent& intent);
  // Carries out an intent that was noted, or what was done of it is taken back, and drops it.  With durable lengths no
  // loss of power leaves a part of it if both files were synced before; afterwards they are again.
  bool carryOut(const Intent& intent, const StoreFiles& files);
  // The number of slots before a change that adds some, noted if there was no room for an intent.
  [[gnu::cold]] void markEnd(const FileLengths& before);
  // Drops the intent of a change that is complete, and what an incomplete note left.
  void withdraw() { cutBackTo(lengthsBytes_); }

  // --- Lengths that survive a loss of power

  // Before the first slot behind a flush is appended: the lengths that the flush made durable.
  void noteLengths(const StoreFiles& files, const FileLengths& lengths);
  // Both files were synced.
  void dropLengths();

  // --- New files

  enum class Replaced {
    kNone,  // the old files are still there
    kBoth,
    kInPart,  // they do not belong together any more
  };
  // Notes that both new files are whole, and renames them over the old ones.
  [[gnu::cold]] Replaced replaceFiles(const FileIds& fresh);
  // Leaves nothing in it: the files have become others.
  void clear();
  // Makes the names of the files durable.
  [[gnu::cold]] void syncFolder() const;

 private:
  std::size_t recoverChange() const;
  bool recoverLengths() const;
  void finishRenames() const;
  void cutBackTo(std::size_t bytes);
  void cutDurablyBackTo(std::size_t bytes);

  std::string path_;
  FileLock lock_;
  const bool survivesPowerLoss_;
  std::size_t lengthsBytes_ =
      0;  // of the entry of durable lengths, which begins the lock file; 0: there is none
  bool areLengthsDurable_ = true;  // those that the files had at the last flush
};

// Renames the new file over the old one; a new index that cannot be renamed is copied over the old one.
[[gnu::cold]] bool putDataInPlace(const std::string& basePath);
[[gnu::cold]] bool putIndexInPlace(const std::string& basePath);
// Removes what a compaction left that did not come to its commit.
[[gnu::cold]] void removeNewFiles(const std::string& basePath);

}  // namespace kl
