#include "store/range_tree.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace {

using kl::ranges::Branch;
using kl::ranges::kNoKey;
using kl::ranges::kWidth;
using kl::ranges::Leaf;
using kl::ranges::Node;
using kl::ranges::Place;
using kl::ranges::RangeTree;

// What a node promises to the one above.
struct Promise {
  unsigned int lastKey;
  unsigned int bound;
  std::vector<const Leaf*> leaves;
};

Promise checkLeaf(const Leaf& leaf) {
  for (unsigned int i = 0; i < leaf.count; ++i) {
    EXPECT_LE(leaf.value[i], leaf.key[i]);
    EXPECT_LE(leaf.key[i] - leaf.value[i], leaf.bound) << "T3";
    EXPECT_TRUE(i == 0 || leaf.key[i - 1] < leaf.value[i]) << "T1";
  }
  return {leaf.count > 0 ? leaf.key[leaf.count - 1] : 0, leaf.bound, {&leaf}};
}

Promise checkNode(const Node& node);

Promise checkBranch(const Branch& branch) {
  Promise all{};
  for (unsigned int i = 0; i < branch.count; ++i) {
    EXPECT_EQ(branch.child[i]->parent, &branch);
    EXPECT_GT(branch.child[i]->count, 0U) << "T4";
    const Promise child = checkNode(*branch.child[i]);
    EXPECT_EQ(branch.key[i], child.lastKey) << "T1";
    EXPECT_GE(branch.value[i], child.bound) << "T3";
    EXPECT_TRUE(!branch.child[i]->isLeaf || branch.value[i] == child.bound) << "T3";
    all.bound = std::max(all.bound, branch.value[i]);
    all.lastKey = child.lastKey;
    all.leaves.insert(all.leaves.end(), child.leaves.begin(), child.leaves.end());
  }
  return all;
}

Promise checkNode(const Node& node) {
  EXPECT_LE(node.count, kWidth);
  for (unsigned int i = node.count; i < kWidth; ++i) EXPECT_EQ(node.key[i], kNoKey) << "T2";
  return node.isLeaf ? checkLeaf(static_cast<const Leaf&>(node))
                     : checkBranch(static_cast<const Branch&>(node));
}

void checkTree(const RangeTree& tree) {
  EXPECT_EQ(tree.root()->parent, nullptr);
  EXPECT_TRUE(tree.root()->isLeaf || tree.root()->count > 1);
  const std::vector<const Leaf*> leaves = checkNode(*tree.root()).leaves;
  const Leaf* linked = tree.lowest().leaf;
  const Leaf* before = nullptr;
  for (const Leaf* leaf : leaves) {
    ASSERT_EQ(linked, leaf) << "T4";
    EXPECT_EQ(leaf->previous, before) << "T4";
    before = leaf;
    linked = leaf->next;
  }
  EXPECT_EQ(linked, nullptr) << "T4";
}

TEST(RangeTree, AnEmptyTreeHasNoCurrentRange) {
  const RangeTree tree;
  EXPECT_TRUE(tree.isEmpty());
  EXPECT_FALSE(tree.current().isRange());
  EXPECT_FALSE(tree.find(0).isRange());
  checkTree(tree);
}

TEST(RangeTree, FindGivesTheFirstRangeThatEndsAtTheIdentifierOrAbove) {
  RangeTree tree;
  tree.insert(tree.find(10), 10, 20);
  tree.insert(tree.find(30), 30, 0xFFFFFFFF);
  EXPECT_EQ(tree.find(0).first(), 10U);
  EXPECT_EQ(tree.find(20).first(), 10U);
  EXPECT_EQ(tree.find(21).first(), 30U);
  EXPECT_EQ(tree.find(0xFFFFFFFF).first(), 30U);
}

TEST(RangeTree, AfterTheHighestRangeTheLowestIsCurrent) {
  RangeTree tree;
  for (unsigned int id = 0; id < 1000; ++id) tree.insert(tree.find(10 * id), 10 * id, 10 * id);
  tree.setCurrent(tree.find(9990));
  tree.erase(tree.current());
  EXPECT_EQ(tree.current(), tree.lowest());
  tree.erase(tree.current());
  EXPECT_EQ(tree.current().first(), 10U);
}

// Random changes against a map of ranges by their first identifier.
class RandomTree {
 public:
  explicit RandomTree(unsigned int seed) : random_(seed) {}

  // Each number in 0..kNumbers-1 stands for at most one range, somewhere in its ten identifiers.
  void step() {
    const unsigned int number = pick(kNumbers);
    const unsigned int first = 10 * number + pick(3);
    const unsigned int last = first + pick(6);
    const auto known = model_.find(number);
    if (known == model_.end()) add(number, first, last);
    else if (pick(2) == 0) remove(known);
    else change(known, first, last);
  }

  void check() {
    checkTree(tree_);
    Place place = tree_.lowest();
    for (const auto& [number, range] : model_) {
      ASSERT_EQ(place.first(), range.first);
      ASSERT_EQ(place.last(), range.last);
      ASSERT_EQ(tree_.find(range.first), place);
      ASSERT_EQ(place == tree_.current(), number == current_) << number;
      place = RangeTree::next(place);
    }
    EXPECT_FALSE(place.isRange());
    if (!model_.empty()) checkWidest();
  }

  void removeAll() {
    while (!model_.empty()) {
      const auto known = model_.lower_bound(pick(kNumbers));
      remove(known == model_.end() ? model_.begin() : known);
    }
  }

 private:
  static constexpr unsigned int kNumbers = 12000;
  struct Range {
    unsigned int first;
    unsigned int last;
  };
  using Model = std::map<unsigned int, Range>;

  unsigned int pick(unsigned int count) { return static_cast<unsigned int>(random_() % count); }

  void add(unsigned int number, unsigned int first, unsigned int last) {
    if (model_.empty()) current_ = number;
    model_[number] = {first, last};
    const Place place = tree_.insert(tree_.find(first), first, last);
    EXPECT_EQ(place.first(), first);
    EXPECT_EQ(place.last(), last);
  }

  void remove(Model::iterator known) {
    tree_.erase(tree_.find(known->second.first));
    const bool wasCurrent = known->first == current_;
    const auto next = model_.erase(known);
    if (wasCurrent && !model_.empty()) current_ = (next == model_.end() ? model_.begin() : next)->first;
  }

  void change(Model::iterator known, unsigned int first, unsigned int last) {
    const Place place = tree_.find(known->second.first);
    tree_.setFirst(place, std::min(first, known->second.last));
    tree_.setLast(place, last);
    tree_.setFirst(place, first);
    known->second = {first, last};
    if (pick(10) != 0) return;
    tree_.setCurrent(place);
    current_ = known->first;
  }

  void checkWidest() {
    auto widest = model_.begin();
    for (auto range = model_.begin(); range != model_.end(); ++range)
      if (range->second.last - range->second.first > widest->second.last - widest->second.first)
        widest = range;
    EXPECT_EQ(tree_.findWidest().first(), widest->second.first);
    checkTree(tree_);
  }

  std::mt19937 random_;
  RangeTree tree_;
  Model model_;
  unsigned int current_ = 0;
};

TEST(RangeTree, RandomChangesFollowAMap) {
  for (const unsigned int seed : {4711U, 4712U}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomTree random(seed);
    for (int i = 0; i < 40000; ++i) {
      random.step();
      if (i % 4000 == 0 || i < 200) random.check();
    }
    random.check();
    random.removeAll();
    random.check();
    for (int i = 0; i < 200; ++i) random.step();
    random.check();
  }
}

// A node that is nearly empty merges with its neighbour, so that memory follows the ranges that are there.
TEST(RangeTree, FewRangesThatAreLeftStandInFewLeaves) {
  RangeTree tree;
  for (unsigned int id = 0; id < 20000; ++id) tree.insert(tree.find(2 * id), 2 * id, 2 * id);
  for (unsigned int id = 0; id < 20000; ++id)
    if (id % 100 != 0) tree.erase(tree.find(2 * id));
  checkTree(tree);
  unsigned int leaves = 0;
  for (const Leaf* leaf = tree.lowest().leaf; leaf != nullptr; leaf = leaf->next) ++leaves;
  EXPECT_LE(leaves, 200 / (kWidth / 4) + 1);
}

}  // namespace
