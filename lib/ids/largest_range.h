#pragma once
// largest_range.h: where ranges end, and which is the largest.

#include "ids/word_tree.h"

namespace kl {

// The last identifier of the range that starts with `first` in this word.
unsigned int lastOfRange(words::Place place, unsigned int first);

// The first identifier of the largest range, of several the lowest.  Needs: there is a range.
// Looks at the leaves that have changed since the last time, and at one more a level.
unsigned int findLargestRange(words::Node& root);

}  // namespace kl
