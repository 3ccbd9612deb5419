#pragma once
// core.h: what a store consists of, behind its public face.

#include <string>
#include <vector>

#include "kl/store.h"
#include "store/files/blob.h"
#include "store/files/store_files.h"
#include "store/journal/journal.h"
#include "store/space/slots.h"

namespace kl {

// The whole state of one store: its two open files, its slots in memory, its journal with the lock, and what it will do
// later.  Store hands each of its operations on to the one of the same name here.
class __attribute__((visibility("hidden"))) Store::Core {
 public:
  Core(const std::string& path, unsigned int lifetime, Durability durability);
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  // --- Entries (store.cpp)
  const Entries& entries() const { return slots_.entries(); }
  void set(unsigned int id, const message& m);
  message get(unsigned int id);
  bool remove(unsigned int id);
  void touch(unsigned int id, unsigned int lifetime);
  bool batch(const Messages& set, const std::vector<unsigned int>& removed);
  void age();

  // --- The store as a whole (loading.cpp)
  bool readIndex(bool convert);
  void restart();
  void deleteFiles();
  void cleanup();

  // --- Later (schedule.cpp)
  void flush();
  void doFlush();
  void checkForBloat();
  void doCompaction();
  void compact(bool convert);

  // --- One slot or blob at a time, under the lock; what fails prints (store.cpp)
  bool openIdx();
  bool openData();
  void closeIdx() { files_.closeIdx(); }
  void closeData() { files_.closeData(); }
  bool writeSlot(unsigned int slot, const IndexSlot& content);
  bool writeBlob(unsigned int offset, Bytes first, Bytes second);
  message readBlob(unsigned int offset, unsigned int expectedBytes);

 private:
  class Change;  // one set, remove or touch of the files (change.h)

  bool ensureConverted();
  void rewrite(unsigned int offset, const Blob& blob);
  bool moveAndWrite(unsigned int id, const Blob& blob);
  bool writeBatch(const Messages& set, const std::vector<unsigned int>& removed);
  void takeBackAppended(const Entry& last, bool isIndexed);

  bool tryLoad();
  bool isAtRest() const;
  bool load(bool convert);
  bool decodeIndex(bool convert);

  bool isPending(TimerPtr timer) const;
  void startTimer(TimerPtr& timer, ThinRunner::TimerCallback callback, unsigned int ticks);
  void cancelTimers();
  void cancelTimer(TimerPtr& timer);

  StoreFiles files_;
  Slots slots_;
  Journal journal_;
  const unsigned int defaultLifetime_;
  bool isOlderLayout_ = false;  // the files are, though their index has been read

  TimerPtr compactTimer_;
  TimerPtr flushTimer_;
  unsigned int timerRunner_ = 0;  // the number of the Runner that the two timers belong to
  unsigned int changes_ = 0;      // that are under way
  bool isFlushWanted_ = false;    // at the end of the change, in a process without a Runner
};

}  // namespace kl
