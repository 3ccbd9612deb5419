#pragma once
// free_ranges.h: the free identifiers, as ranges in ascending order of which one is the current one.

#include "ids/word_tree.h"

namespace kl {

// Cost: an operation on one identifier takes time logarithmic in the number of ranges, takeNext() constant time.
// makeLargestCurrent() looks at what has changed since the last time.
class FreeRanges {
 public:
  struct Range {
    unsigned int first;
    unsigned int last;
  };
  enum class Taken { kNothing, kOther, kOfCurrent };

  bool isEmpty() const { return words_.isEmpty(); }
  bool contains(unsigned int id) const;

  // The first identifier of the current range.  Needs: there is one, for this and for setCurrent().
  unsigned int current() const { return current_; }
  void setCurrent(unsigned int first);
  // The largest range is the current one, of several the lowest.  Needs: there is one.
  void makeLargestCurrent();

  // Adds a range below all others.
  void insertLowest(Range range);
  // The lowest range that starts at this identifier or above it; false if there is none.
  bool findFrom(unsigned int id, Range& range) const;

  // Would this one, once it is free, be the lowest range with the current range next, or the only range?
  bool isAheadOfCurrent(unsigned int id) const;

  // Takes the current range's first identifier.  If it was its last one, too, the next range is the current one;
  // after the highest, the lowest.  Needs: there is a current range.
  unsigned int takeNext();
  // Takes this one, if it is free.  If it was of the current range, the caller sets the current range anew.
  Taken take(unsigned int id);
  // Adds one; false if it is free already.  It joins the ranges beside it, but not the low end of the current one.
  // If nothing was free, the caller makes it the current range.
  bool giveBack(unsigned int id);

  // The words, for a closer look.
  const words::WordTree& words() const { return words_; }

 private:
  Taken takeAtEdge(words::Place found, unsigned int id);
  bool giveBackAtEdge(words::Place found, unsigned int id);
  words::Place makeWord(words::Place found, int number);
  words::Place makeWordsOf(words::Place found, unsigned int id);
  void moveOn(words::Place place);
  void settle(words::Place place, unsigned int id);
  void dropIfImplied(words::Place place);

  words::WordTree words_;
  unsigned int current_ = 0;
};

}  // namespace kl
