#pragma once
// tests/support/changing_calls.h: the system calls that change files, as places where a test lets a process end, a
// call fail, or just looks on.  A program that uses this defines those calls itself; without a script they do what the
// kernel does.  Compile this and what it watches with the same _FILE_OFFSET_BITS.

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace kl::test {

enum class When { kBefore, kInside, kAfter };

// What a call did to a file, for a test that replays it.
struct FileCall {
  enum Kind { kWrite, kTruncate, kSync, kRename, kUnlink, kCreate } kind;
  unsigned long long inode;          // of the file (of the folder: kSync)
  unsigned long long place;          // or the new length
  std::vector<unsigned char> bytes;  // of a write
  std::string from, to;              // paths of rename, unlink, create
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
  // Tells every change after it was done.
  void watch(std::function<void(const FileCall&)> watcher);

  unsigned int calls() const;   // changing calls since the script began
  unsigned int failed() const;  // writes that were made to fail

  static constexpr int kEndStatus = 77;
};

}  // namespace kl::test
