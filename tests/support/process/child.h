#pragma once
// tests/support/process/child.h: runs a function or a program in a process of its own and says how that process ended.

#include <functional>
#include <string>
#include <vector>

namespace kl::test {

struct ChildResult {
  int exitStatus = -1;  // -1 when a signal ended it
  int signal = 0;       // the signal that ended it, or 0
  std::string out;      // what it wrote to descriptor 1
  std::string err;      // what it wrote to descriptor 2
};

// Runs `body` in a forked child; a child that comes back from it ends with status 0 and without destructors.
ChildResult runInChild(const std::function<void()>& body);

// Runs a program to its end: the words are its path and its arguments.
ChildResult runProgram(const std::vector<std::string>& words);

// Makes this process the program; one that cannot be started ends with status 127.
[[noreturn]] void become(const std::vector<std::string>& words);

}  // namespace kl::test
