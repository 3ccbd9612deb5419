#include "tests/lib/ids/word_tree_checks.h"

#include <gtest/gtest.h>

#include <vector>

namespace kl::test {
namespace {

using words::Branch;
using words::kNoKey;
using words::kUnknown;
using words::kWidth;
using words::Leaf;
using words::Node;

// The leaves below a node, whose numbers all lie in first..last.
class Leaves {
 public:
  void collect(Node& node, int first, int last) {
    EXPECT_LE(node.count, kWidth);
    for (int i = node.count; i < kWidth; ++i) EXPECT_EQ(node.key[i], kNoKey) << "T2";
    for (int i = 1; i < node.count; ++i) EXPECT_LT(node.key[i - 1], node.key[i]) << "T1";
    if (node.isLeaf) collectLeaf(words::leafOf(node), first, last);
    else collectBranch(words::branchOf(node), first, last);
  }

  const std::vector<Leaf*>& all() const { return leaves_; }

 private:
  void collectLeaf(Leaf& leaf, int first, int last) {
    if (leaf.count > 0) {
      EXPECT_GE(leaf.key[0], first) << "T1";
      EXPECT_LE(leaf.key[leaf.count - 1], last) << "T1";
    }
    leaves_.push_back(&leaf);
  }

  void collectBranch(Branch& branch, int first, int last) {
    EXPECT_EQ(branch.key[0], words::kLowestKey) << "T1";
    for (int i = 0; i < branch.count; ++i) {
      Node& child = *branch.child[i];
      EXPECT_EQ(child.parent, &branch);
      EXPECT_GT(child.count, 0) << "T3";
      EXPECT_TRUE(branch.largest == kUnknown || child.largest != kUnknown) << "T4";
      collect(child, i == 0 ? first : branch.key[i], i + 1 == branch.count ? last : branch.key[i + 1] - 1);
    }
  }

  std::vector<Leaf*> leaves_;
};

}  // namespace

void checkWordTree(const words::WordTree& tree) {
  EXPECT_EQ(tree.root().parent, nullptr);
  EXPECT_TRUE(tree.root().isLeaf || tree.root().count > 1);
  Leaves leaves;
  leaves.collect(tree.root(), 0, kNoKey - 1);
  const Leaf* linked = tree.lowest().leaf;
  const Leaf* before = nullptr;
  for (const Leaf* leaf : leaves.all()) {
    ASSERT_EQ(linked, leaf) << "T3";
    EXPECT_EQ(leaf->previous, before) << "T3";
    before = leaf;
    linked = leaf->next;
  }
  EXPECT_EQ(linked, nullptr) << "T3";
}

int countLeaves(const words::WordTree& tree) {
  int leaves = 0;
  for (const Leaf* leaf = tree.lowest().leaf; leaf != nullptr; leaf = leaf->next) ++leaves;
  return leaves;
}

}  // namespace kl::test
