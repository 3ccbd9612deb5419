// kl-test-edits: the random edits of scripts/edits.
//
//     kl-test-edits wire SEED COUNT               what klgen says of pairs, and what the interpreter does
//     kl-test-edits peers SEED COUNT              messages between two real versions
//     kl-test-edits write SEED COUNT FOLDER       programs for a compiler
//     kl-test-edits compare SEED COUNT FOLDER     what it said of them, in FOLDER/errors and FOLDER/exchanged

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>

#include "tests/tools/klgen/edits/pairs.h"
#include "tests/tools/klgen/edits/peers.h"

namespace {

constexpr unsigned int kPairsInAFile = 50;

std::string textOf(const std::string& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

void printCounts(const std::vector<edits::Pair>& pairs) {
  unsigned int counts[3] = {};
  for (const edits::Pair& pair : pairs) ++counts[static_cast<unsigned int>(edits::verdictOf(pair))];
  std::cout << pairs.size() << " pairs: " << counts[2] << " break programs, " << counts[1]
            << " break sources, " << counts[0] << " break nothing\n";
}

int ended(const std::string& differences) {
  std::cout << differences;
  return differences.empty() ? 0 : 1;
}

int run(const std::string& what, unsigned int seed, unsigned int count, const std::string& folder) {
  if (what == "peers") {
    edits::Random random(seed);
    return ended(edits::differenceOfPeers(random, count));
  }
  const std::vector<edits::Pair> pairs = edits::randomPairs(seed, count);
  if (what == "wire") {
    printCounts(pairs);
    return ended(edits::differencesOnTheWire(pairs));
  }
  if (what == "compare")
    return ended(edits::differencesOfSources(pairs, textOf(folder + "/errors")) +
                 edits::differencesOfExchanges(pairs, textOf(folder + "/exchanged")));
  edits::writePrograms(pairs, folder, kPairsInAFile);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  return run(argv[1], static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)),
             static_cast<unsigned int>(std::strtoul(argv[3], nullptr, 10)), argc > 4 ? argv[4] : "");
}
