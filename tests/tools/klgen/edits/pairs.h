#pragma once
// pairs.h: many random pairs, and what klgen and the programs say of each.

#include <string>
#include <vector>

#include "tests/tools/klgen/edits/edits.h"

namespace edits {

// The verdict of klgen check on a pair.
enum class Verdict { kFine, kSource, kWire };
Verdict verdictOf(const Pair& pair);

// The pairs that a seed gives, one after the other.  A field that gets its first words while no structure has it is left
// out: klgen counts it, and no program that is made here can notice.
std::vector<Pair> randomPairs(unsigned int seed, unsigned int count);

// Where klgen and the interpreter differ about what is broken on the wire: one line for each such pair.
std::string differencesOnTheWire(const std::vector<Pair>& pairs);

// Files for a compiler in a folder: the headers of the pairs, `source_K.cpp`, in which each fault of a program that was
// written for an older version is in a line of the file "pair_N", and `exchange_K.cpp`, programs that print "N 1" where
// both versions understand each other's structures and "N 0" elsewhere.  Each has `perFile` pairs.
void writePrograms(const std::vector<Pair>& pairs, const std::string& folder, unsigned int perFile);

// Where klgen and a compiler, which said `errors` of the sources, differ: one line for each such pair.
std::string differencesOfSources(const std::vector<Pair>& pairs, const std::string& errors);

// Where the interpreter and the programs, which printed `exchanged`, differ: one line for each such pair.
std::string differencesOfExchanges(const std::vector<Pair>& pairs, const std::string& exchanged);

}  // namespace edits
