#pragma once
// peers.h: programs of two real versions, sample.toml and sample_next.toml, which exchange messages.

#include "tests/tools/klgen/edits/edits.h"

namespace edits {

// Sends so many random messages of each version to the other one and back, and gives the first difference in a field that
// both know, or in one that the receiver does not know and must keep; empty when there is none.
std::string differenceOfPeers(Random& random, unsigned int messages);

}  // namespace edits
