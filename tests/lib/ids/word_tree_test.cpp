#include "ids/word_tree.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "tests/lib/ids/word_tree_checks.h"

namespace {

using kl::test::checkWordTree;
using kl::test::insert;
using kl::words::kUnknown;
using kl::words::Place;
using kl::words::WordTree;

constexpr int kHighest = (1 << 26) - 1;  // the word of the last identifier

TEST(WordTree, AnEmptyTreeHasNoWords) {
  const WordTree tree;
  EXPECT_TRUE(tree.isEmpty());
  EXPECT_FALSE(tree.find(0).isWord());
  EXPECT_FALSE(WordTree::next(tree.find(kHighest)).isWord());
  EXPECT_FALSE(WordTree::previous(tree.find(kHighest)).isWord());
  checkWordTree(tree);
}

TEST(WordTree, FindGivesTheWordOrTheOneBefore) {
  WordTree tree;
  insert(tree, 10, {1, 0});
  insert(tree, kHighest, {3, 0});
  insert(tree, 12, {2, 0});
  EXPECT_FALSE(tree.find(9).isWord());
  EXPECT_EQ(tree.find(10).word().free, 1U);
  EXPECT_EQ(tree.find(11).word().free, 1U);
  EXPECT_EQ(tree.find(12).word().free, 2U);
  EXPECT_EQ(tree.find(kHighest - 1).word().free, 2U);
  EXPECT_EQ(tree.find(kHighest).word().free, 3U);
}

// A word's place is guessed from the leaf's first word: right where all between are there, and wrong where not.
TEST(WordTree, FindIsRightInFullLeavesAndInThoseWithGaps) {
  WordTree tree;
  for (int number = 0; number < 200; ++number)
    if (number % 7 != 3) insert(tree, number, {static_cast<std::uint64_t>(number), 0});
  for (int number = 0; number < 200; ++number)
    EXPECT_EQ(tree.find(number).word().free,
              static_cast<unsigned int>(number % 7 != 3 ? number : number - 1));
}

TEST(WordTree, WordsBeforeTheFirstOneOfTheirLeafAreFoundInTheLeafBefore) {
  WordTree tree;
  for (int number = 0; number < 1000; ++number) insert(tree, 10 * number, {1, 0});
  const Place first{tree.lowest().leaf->next, 0};
  const int number = first.number();
  tree.erase(first);
  EXPECT_EQ(tree.find(number).number(), number - 10);
  EXPECT_EQ(tree.find(number + 9).number(), number - 10);
  insert(tree, number + 1, {2, 0});
  EXPECT_EQ(tree.find(number + 9).number(), number + 1);
  checkWordTree(tree);
}

TEST(WordTree, NextAndPreviousWalkOverAllLeaves) {
  WordTree tree;
  for (int number = 0; number < 1000; ++number) insert(tree, 3 * number, {1, 0});
  Place place = tree.lowest();
  for (int number = 0; number < 1000; ++number, place = WordTree::next(place))
    ASSERT_EQ(place.number(), 3 * number);
  EXPECT_FALSE(place.isWord());
  place = tree.find(kHighest);
  for (int number = 999; number >= 0; --number, place = WordTree::previous(place))
    ASSERT_EQ(place.number(), 3 * number);
  EXPECT_FALSE(place.isWord());
  EXPECT_EQ(WordTree::next(place), tree.lowest());
}

TEST(WordTree, TheMarkIsNowhereOnceItsWordIsGone) {
  WordTree tree;
  insert(tree, 5, {1, 0});
  tree.mark(tree.find(5));
  tree.erase(tree.find(5));
  EXPECT_FALSE(tree.marked().isWord());
}

TEST(WordTree, AChangeForgetsTheSizesAboveItAndThoseOfTheWordBefore) {
  WordTree tree;
  for (int number = 0; number < 1000; ++number) insert(tree, number, {1, 1});
  const auto know = [&tree] {
    for (Place place = tree.lowest(); place.isWord(); place = WordTree::next(place)) {
      place.leaf->largest = 1;
      for (kl::words::Branch* above = place.leaf->parent; above != nullptr; above = above->parent)
        above->largest = 1;
    }
  };
  const Place third{tree.lowest().leaf->next->next, 0};
  know();
  tree.forgetLargest(WordTree::next(third));
  EXPECT_EQ(third.leaf->largest, kUnknown);
  EXPECT_EQ(third.leaf->previous->largest, 1U);
  EXPECT_EQ(tree.root().largest, kUnknown);
  checkWordTree(tree);
  know();
  tree.forgetLargest(third);
  EXPECT_EQ(third.leaf->largest, kUnknown);
  EXPECT_EQ(third.leaf->previous->largest, kUnknown);
  EXPECT_EQ(third.leaf->next->largest, 1U);
  checkWordTree(tree);
}

// Random changes against a map.
class RandomTree {
 public:
  explicit RandomTree(unsigned int seed) : random_(seed) {}

  void step() {
    const int number = pick();
    const auto known = model_.find(number);
    if (known != model_.end()) return erase(known);
    model_[number] = ++lastValue_;
    EXPECT_EQ(insert(tree_, number, {lastValue_, 0}).number(), number);
    if (model_.size() != 1 && random_() % 10 != 0) return;
    marked_ = number;
    tree_.mark(tree_.find(number));
  }

  void check() {
    checkWordTree(tree_);
    Place place = WordTree::next({tree_.lowest().leaf, -1});
    for (const auto& [number, value] : model_) {
      ASSERT_EQ(place.number(), number);
      ASSERT_EQ(place.word().free, value);
      ASSERT_EQ(tree_.find(number), place);
      ASSERT_EQ(place == tree_.marked(), number == marked_) << "T5: " << number;
      place = WordTree::next(place);
    }
    EXPECT_FALSE(place.isWord());
    for (int i = 0; i < 100; ++i) checkFind(pick());
  }

  void eraseAll() {
    while (!model_.empty()) {
      const auto known = model_.lower_bound(pick());
      erase(known == model_.end() ? model_.begin() : known);
    }
  }

 private:
  using Model = std::map<int, std::uint64_t>;

  int pick() { return static_cast<int>(random_() % 24000); }

  void erase(Model::iterator known) {
    if (known->first == marked_) marked_ = -1;
    tree_.erase(tree_.find(known->first));
    model_.erase(known);
  }

  void checkFind(int number) {
    const auto above = model_.upper_bound(number);
    const Place place = tree_.find(number);
    ASSERT_EQ(place.isWord(), above != model_.begin());
    if (!place.isWord()) return;
    ASSERT_EQ(place.number(), std::prev(above)->first);
  }

  std::mt19937 random_;
  WordTree tree_;
  Model model_;
  std::uint64_t lastValue_ = 0;
  int marked_ = -1;
};

TEST(WordTree, RandomChangesFollowAMap) {
  for (const unsigned int seed : {4711U, 4712U}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomTree random(seed);
    for (int i = 0; i < 60000; ++i) {
      random.step();
      if (i % 6000 == 0 || i < 200) random.check();
    }
    random.check();
    random.eraseAll();
    random.check();
    for (int i = 0; i < 200; ++i) random.step();
    random.check();
  }
}

}  // namespace
