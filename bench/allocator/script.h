#pragma once
// script.h: what an allocator is asked for, worked out before the clock runs.

#include <cstddef>
#include <vector>

namespace bench {

// One step in four takes any identifier, one takes a particular one, two give one back, at random; about
// half of the identifiers are free at any time, in about as many ranges as asked for.  They lie side by side, or so
// far apart that each is a range of its own.
class Script {
 public:
  enum Kind : unsigned int { kTakeAny, kTake, kGiveBack };
  class Step {
   public:
    Step(Kind kind, unsigned int id) : word_(kind | id << 2) {}
    Kind kind() const { return static_cast<Kind>(word_ & 3); }
    unsigned int id() const { return word_ >> 2; }

   private:
    unsigned int word_;
  };

  static constexpr unsigned int kSideBySide = 1;
  static constexpr unsigned int kFarApart = 1000;

  Script(unsigned int freeRanges, unsigned int distance);

  unsigned int idEnd() const { return idEnd_; }                      // all are below this
  const std::vector<unsigned int>& start() const { return start_; }  // pairs of first and last that are free
  const std::vector<Step>& steps() const { return steps_; }

 private:
  unsigned int idEnd_;
  std::vector<unsigned int> start_;
  std::vector<Step> steps_;
};

// Walks an allocator of a kind through a script, again from the start when it is through.
template <class Kind>
class Walk {
 public:
  explicit Walk(const Script& script) : script_(script), ids_(script) {}

  void operator()(unsigned int count) {
    for (; count > 0; --count) {
      if (at_ == script_.steps().size()) startAgain();
      const Script::Step step = script_.steps()[at_++];
      switch (step.kind()) {
        case Script::kTakeAny: sum_ += ids_.take(); break;
        case Script::kTake: ids_.take(step.id()); break;
        default: ids_.giveBack(step.id());
      }
    }
  }

 private:
  void startAgain() {
    ids_.startAgain(script_);
    at_ = 0;
  }

  const Script& script_;
  Kind ids_;
  std::size_t at_ = 0;
  unsigned int sum_ = 0;
};

}  // namespace bench
