// The shape of a tree of words: how many leaves it has, and that every way to split, merge and empty them keeps it whole.

#include <gtest/gtest.h>

#include "ids/word_tree.h"
#include "tests/lib/ids/word_tree_checks.h"

namespace {

using kl::test::checkWordTree;
using kl::test::countLeaves;
using kl::test::insert;
using kl::words::kWidth;
using kl::words::Place;
using kl::words::WordTree;

constexpr int kMany = 3 * kWidth * kWidth * kWidth / 4;  // needs branches above branches

void fill(WordTree& tree, int count, int stride = 1) {
  for (int number = 0; number < count; ++number) insert(tree, stride * number, {1, 0});
}

TEST(WordTreeShape, AscendingNumbersFillTheLeaves) {
  WordTree tree;
  fill(tree, kMany);
  checkWordTree(tree);
  EXPECT_EQ(countLeaves(tree), kMany / kWidth);
  EXPECT_FALSE(kl::words::branchOf(tree.root()).child[0]->isLeaf);
}

TEST(WordTreeShape, DescendingNumbersFillTheLeaves) {
  WordTree tree;
  for (int number = kMany; number > 0; --number) insert(tree, number, {1, 0});
  checkWordTree(tree);
  EXPECT_EQ(countLeaves(tree), kMany / kWidth);
}

// Identifiers are mostly taken and given back below a range that goes up to the last one.
TEST(WordTreeShape, NumbersInOrderBesideAHigherOrALowerOneFillTheLeaves) {
  WordTree ascending;
  insert(ascending, 1 << 25, {1, 0});
  fill(ascending, kMany);
  checkWordTree(ascending);
  EXPECT_LE(countLeaves(ascending), kMany / kWidth + 2);
  WordTree descending;
  insert(descending, 0, {1, 0});
  for (int number = kMany; number > 0; --number) insert(descending, number, {1, 0});
  checkWordTree(descending);
  EXPECT_LE(countLeaves(descending), kMany / (kWidth - 1) + 2);
}

TEST(WordTreeShape, AFullLeafIsSplitInTheMiddle) {
  WordTree tree;
  fill(tree, kWidth, 2);
  EXPECT_EQ(countLeaves(tree), 1);
  const Place place = insert(tree, 5, {1, 0});
  EXPECT_EQ(place.number(), 5);
  EXPECT_EQ(tree.lowest().leaf->count, kWidth / 2 + 1);
  EXPECT_EQ(tree.lowest().leaf->next->count, kWidth / 2);
  checkWordTree(tree);
}

TEST(WordTreeShape, TheMarkFollowsItsWordThroughSplittingAndMerging) {
  for (int marked = 0; marked < kWidth; ++marked) {
    WordTree tree;
    fill(tree, kWidth, 4);
    tree.mark(tree.find(4 * marked));
    insert(tree, 4 * marked + 1, {1, 0});
    EXPECT_EQ(tree.marked().number(), 4 * marked);
    insert(tree, 4 * marked - 1 + (marked == 0 ? 3 : 0), {1, 0});
    EXPECT_EQ(tree.marked().number(), 4 * marked);
    for (int number = 0; number < kWidth; ++number)
      if (number != marked) tree.erase(tree.find(4 * number));
    EXPECT_EQ(tree.marked().number(), 4 * marked);
    EXPECT_EQ(countLeaves(tree), 1);
    checkWordTree(tree);
  }
}

// A node that is nearly empty merges with its neighbour, so that memory follows the words that are there.
TEST(WordTreeShape, FewWordsThatAreLeftStandInFewLeavesBelowOneBranch) {
  WordTree tree;
  fill(tree, kMany);
  for (int number = 0; number < kMany; ++number)
    if (number % 100 != 0) tree.erase(tree.find(number));
  checkWordTree(tree);
  EXPECT_LE(countLeaves(tree), kMany / 100 / (kWidth / 4) + 1);
  EXPECT_TRUE(kl::words::branchOf(tree.root()).child[0]->isLeaf);
}

TEST(WordTreeShape, TheWordThatIsLeftStandsInTheRoot) {
  for (const int left : {0, 1, kWidth, kMany / 2, kMany - 1}) {
    WordTree tree;
    fill(tree, kMany);
    for (int number = 0; number < kMany; ++number)
      if (number != left) tree.erase(tree.find(number));
    EXPECT_TRUE(tree.root().isLeaf);
    EXPECT_EQ(tree.lowest().number(), left);
    checkWordTree(tree);
  }
}

TEST(WordTreeShape, WordsThatGoFromTheFrontOrTheBackLeaveAWholeTree) {
  for (const bool fromFront : {true, false}) {
    WordTree tree;
    fill(tree, kMany);
    for (int gone = 0; gone < kMany; ++gone) {
      tree.erase(fromFront ? tree.lowest() : tree.find(kMany));
      if (gone % 997 == 0) checkWordTree(tree);
    }
    EXPECT_TRUE(tree.isEmpty());
    checkWordTree(tree);
    fill(tree, 3);
    EXPECT_EQ(tree.find(5).number(), 2);
  }
}

// A leaf between full ones cannot merge: it empties, and its numbers belong to the leaf before it, or, if it was the
// lowest below its branch, to the one behind.
TEST(WordTreeShape, ALeafBetweenFullOnesGoesWhenItIsEmpty) {
  WordTree tree;
  fill(tree, kMany);
  const int leaves = countLeaves(tree);
  for (int leaf = 1; leaf < leaves; leaf += 2)
    for (int i = 0; i < kWidth; ++i) tree.erase(tree.find(leaf * kWidth + i));
  EXPECT_EQ(countLeaves(tree), leaves / 2);
  checkWordTree(tree);
  for (int leaf = 1; leaf < leaves; leaf += 2) {
    EXPECT_EQ(tree.find(leaf * kWidth).number(), leaf * kWidth - 1);
    insert(tree, leaf * kWidth, {1, 0});
  }
  checkWordTree(tree);
  for (int leaf = 0; leaf < leaves; leaf += 2)
    for (int i = 0; i < kWidth; ++i) tree.erase(tree.find(leaf * kWidth + i));
  checkWordTree(tree);
  EXPECT_EQ(tree.lowest().number(), kWidth);
}

TEST(WordTreeShape, ABranchBetweenFullOnesGoesWhenItIsEmpty) {
  WordTree tree;
  fill(tree, kMany);
  constexpr int kBelowBranch = kWidth * kWidth;
  for (const int branch : {0, 2, 4})
    for (int i = 0; i < kBelowBranch; ++i) tree.erase(tree.find(branch * kBelowBranch + i));
  checkWordTree(tree);
  for (const int branch : {0, 2, 4}) {
    EXPECT_EQ(tree.find(branch * kBelowBranch + 5).isWord(), branch != 0);
    insert(tree, branch * kBelowBranch + 5, {1, 0});
  }
  checkWordTree(tree);
  EXPECT_EQ(tree.lowest().number(), 5);
}

}  // namespace
