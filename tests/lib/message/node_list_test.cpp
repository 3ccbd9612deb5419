#include "message/node_list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <random>
#include <string>

namespace {

using kl::container::Kind;
using kl::container::Memory;
using kl::container::Node;
using kl::container::NodeList;

class NodeListTest : public testing::TestWithParam<unsigned int> {
 protected:
  ~NodeListTest() override { memory.releaseAll(); }
  Node* node(unsigned int id) {
    Node* fresh = kl::container::takeNode(memory, Kind::raw, id, 0);
    fresh->size = 0;
    fresh->count = 0;
    return fresh;
  }
  Memory memory;
  NodeList list;
};

TEST_P(NodeListTest, KeepsItsOrderThroughRandomSteps) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::list<unsigned int> expected;
  for (unsigned int i = 0; i < 2000; ++i) {
    const auto id = static_cast<unsigned int>(random() % GetParam());
    const NodeList::Place place = list.find(id);
    const auto at = std::find(expected.begin(), expected.end(), id);
    ASSERT_EQ(place.node != nullptr, at != expected.end());
    if (place.node == nullptr) {
      list.push(place.entry, node(id), memory);
      expected.push_front(id);
    } else if (random() % 2 == 0) {
      list.remove(place);
      expected.erase(at);
    } else {
      list.replace(place, node(id));
    }
    if (i % 10 != 0) continue;
    list.check();
    auto next = expected.begin();
    for (const Node* n = list.head(); n != nullptr; n = n->next, ++next) ASSERT_EQ(n->id, *next);
    ASSERT_TRUE(next == expected.end());
  }
}

INSTANTIATE_TEST_SUITE_P(ShortAndLong, NodeListTest, testing::Values(4, 20, 300));

}  // namespace
