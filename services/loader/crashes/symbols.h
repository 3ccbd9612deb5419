#pragma once
// symbols.h: where in the source a crash happened.

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "kl/runner.h"
#include "services/common/descriptor.h"

namespace loader {

// A place in a program, and as whom its file is read: what a service hands over is read with no more rights than it has.
struct Place {
  std::string program;
  std::string buildId;  // of the program that crashed; another one that has its name by now says nothing
  std::uint64_t offset = 0;
  uid_t user = 0;
  std::vector<gid_t> groups;  // empty: the loader's own user
};

// Asks addr2line, in a process of its own, one place after the other.  Separate debug files are found by it.
//
// Errors:    without addr2line or symbols, after kSeconds, or with kMostWaiting others before it, a place has no name.
// Ownership: borrows the loop; owns the pipe to its process.
// Threads:   that of the loop.
// Cost:      a descriptor and a process while it asks.
class Symbols {
 public:
  static constexpr unsigned int kSeconds = 10;
  static constexpr std::size_t kMostWaiting = 16;
  // "leases.cpp:175 leases::Leases::cmdGetObj"; empty where there is none.
  using Answer = std::function<void(const std::string& name)>;

  explicit Symbols(kl::ThinRunner& runner) : runner_(runner) {}
  Symbols(const Symbols&) = delete;
  Symbols& operator=(const Symbols&) = delete;
  ~Symbols();

  // The answer comes later, in a callback of the loop, or at once where nobody can be asked.
  void ask(const Place& place, Answer answer);

 private:
  struct Question {
    Place place;
    Answer answer;
  };

  void askNext();
  bool start(const Place& place);
  void onReadable(int fd, unsigned int events);
  void finish();

  kl::ThinRunner& runner_;
  std::deque<Question> questions_;  // the first one is being asked
  common::Descriptor pipe_;
  std::string text_;
};

// From the lines of addr2line, a function and its place in turn, the innermost first: the first one that is no part of
// the compiler's or the system's headers.
std::string nameIn(std::string_view lines);

}  // namespace loader
