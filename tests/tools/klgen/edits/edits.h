#pragma once
// edits.h: random descriptions, and what somebody may do to one in an editor.

#include <random>

#include "services/describe/description.h"

namespace edits {

using Random = std::mt19937;

// Two versions of a description, each without a mistake.
struct Pair {
  describe::Description older;
  describe::Description newer;
};

// A description and the same one after a few changes: harmless ones and all kinds of those that break programs.
Pair randomPair(Random& random);

}  // namespace edits
