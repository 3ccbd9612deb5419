#include "message/node.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using kl::container::Elements;
using kl::container::Kind;
using kl::container::Memory;
using kl::container::Node;

class NodeTest : public testing::Test {
 protected:
  ~NodeTest() override { memory.releaseAll(); }
  Node* bytes(Kind kind, unsigned int count, std::vector<unsigned char> value) {
    Node* node = kl::container::takeNode(memory, kind, 1, value.size());
    kl::copyBytes(node->room(), value.data(), value.size());
    node->size = static_cast<unsigned int>(value.size());
    node->count = count;
    return node;
  }
  Memory memory;
};

TEST_F(NodeTest, HasRoomForWhatWasAskedAndTellsIt) {
  for (const std::size_t n : {0, 1, 8, 9, 200, 224, 225, 10000}) {
    Node* node = kl::container::takeNode(memory, Kind::string, 1, n);
    EXPECT_GE(node->roomBytes(), n);
    EXPECT_LE(node->roomBytes(), n + sizeof(void*) + 8);
    node->size = 0;
    kl::container::giveNode(memory, node);
  }
}

TEST_F(NodeTest, TheObjectIsMadeOnceAndIsTheValueFromThenOn) {
  Node* node = bytes(Kind::string, 0, {'a', 'b'});
  std::string* text = kl::container::objectOf<Kind::string>(*node);
  EXPECT_EQ(*text, "ab");
  EXPECT_EQ(kl::container::objectOf<Kind::string>(*node), text);
  *text = "changed";
  EXPECT_EQ(kl::container::valueBytes(*node), 7u);
  EXPECT_EQ(kl::container::bytesOf(*node).size, 7u);
  kl::container::giveNode(memory, node);
}

TEST_F(NodeTest, ElementsAreTheSameInBytesAndInAnObject) {
  Node* node = bytes(Kind::stringArray, 3, {1, 0, 'a', 0, 0, 2, 0, 'b', 'c'});
  for (int form = 0; form < 2; ++form) {
    std::string seen;
    for (Elements e(*node); !e.atEnd(); e.next())
      seen += std::string(e.bytes().data, e.bytes().data + e.bytes().size) + "|";
    EXPECT_EQ(seen, "a||bc|");
    kl::container::objectOf<Kind::stringArray>(*node);
  }
  kl::container::giveNode(memory, node);
  Node* numbers = bytes(Kind::u32Array, 2, {1, 0, 0, 0, 4, 3, 2, 1});
  for (int form = 0; form < 2; ++form) {
    Elements e(*numbers);
    EXPECT_EQ(e.number(), 1u);
    e.next();
    EXPECT_EQ(e.number(), 0x01020304u);
    e.next();
    EXPECT_TRUE(e.atEnd());
    kl::container::objectOf<Kind::u32Array>(*numbers);
  }
  kl::container::giveNode(memory, numbers);
}

TEST_F(NodeTest, ABorrowedValueStaysWhereItIs) {
  const unsigned char elsewhere[] = {'x', 'y'};
  Node* node = bytes(Kind::raw, 0, {});
  node->borrow(elsewhere);
  node->size = 2;
  EXPECT_EQ(node->content(), elsewhere);
  EXPECT_EQ(kl::container::bytesOf(*node).data, elsewhere);
}

}  // namespace
