#pragma once
// word_tree_checks.h: the invariants of a tree of words, looked at from outside, and what its tests share.

#include "ids/word_tree.h"

namespace kl::test {

// Each breach is a failed expectation that names the invariant.
void checkWordTree(const words::WordTree& tree);

inline words::Place insert(words::WordTree& tree, int number, words::Word word) {
  return tree.insert(tree.find(number), number, word);
}

int countLeaves(const words::WordTree& tree);

}  // namespace kl::test
