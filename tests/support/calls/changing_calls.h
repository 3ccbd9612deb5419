#pragma once
// tests/support/calls/changing_calls.h: the system calls that change files, as places where a test lets a process end, a
// call fail, or just looks on.  A program that uses this defines those calls itself; without a script they do what the
// kernel does.  Compile this and what it watches with the same _FILE_OFFSET_BITS.

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace kl::test {

enum class When { kBefore, kInside, kAfter };

// The change that a call made to a file, for a test that replays it.
struct FileCall {
  enum Kind { kWrite, kTruncate, kSync, kRename, kUnlink, kCreate } kind;
  unsigned long long inode;          // of the file, or of the folder that is synced; of an unlink 0
  unsigned long long place;          // or the new length
  std::vector<unsigned char> bytes;  // of a write
  std::string from, to;              // paths; unlink and create have the first one
};

// While it lives, changing calls (pwritev, pwrite, write, ftruncate, rename, unlink, fsync, open that creates or
// truncates) follow this script.  At most one at a time.
class ChangingCalls {
 public:
  ChangingCalls();
  ~ChangingCalls();
  ChangingCalls(const ChangingCalls&) = delete;
  ChangingCalls& operator=(const ChangingCalls&) = delete;

  // Ends the process with kEndStatus at the n-th changing call, counted from 1: before it, after it, or when a write
  // has written the first half of its bytes.  A call that is no write has no inside: it is not done.
  void endAt(unsigned int n, When when);
  // Every n-th write takes nothing and fails with this errno, n = 1: each of them.
  void failEveryWrite(unsigned int n, int errorNumber);
  // The n-th write alone does, counted from 1, or all from it on.
  void failWrite(unsigned int n, int errorNumber);
  void failWritesFrom(unsigned int n, int errorNumber);
  // From the n-th write on the disk is full: what would make a file longer fails with ENOSPC.
  void fillDiskAt(unsigned int n);
  // Tells every write that is made to fail.
  void whenOneFails(std::function<void()> listener);
  // Tells every change after it was done.
  void watch(std::function<void(const FileCall&)> watcher);

  unsigned int calls() const;   // changing calls since the script began
  unsigned int failed() const;  // writes that were made to fail

  static constexpr int kEndStatus = 77;
};

}  // namespace kl::test
