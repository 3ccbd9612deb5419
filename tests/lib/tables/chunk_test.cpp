#include "kl/chunk.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"

namespace {

using Objects = std::vector<kl::message::flat_message>;

kl::message object(std::size_t textBytes) {
  kl::message m;
  m.insert(kl::STD_DESCR, std::string(textBytes, 'x'));
  return m;
}

std::size_t objectsIn(const kl::Chunk& chunk) { return chunk.reply().get(kl::STD_OBJS, Objects()).size(); }

TEST(Chunk, AWholeTableHasNoIdToGoOnFrom) {
  kl::Chunk chunk(0);
  EXPECT_TRUE(chunk.add(3, object(1)));
  EXPECT_TRUE(chunk.add(7, object(2)));
  const kl::message reply = chunk.reply();
  const Objects objects = reply.get(kl::STD_OBJS, Objects());
  ASSERT_EQ(objects.size(), 2u);
  EXPECT_EQ(objects[0], object(1).flattened());
  EXPECT_EQ(objects[1], object(2).flattened());
  EXPECT_FALSE(reply.has(kl::STD_GETALLID));
}

TEST(Chunk, AnEmptyTableIsAnEmptyListOfObjects) {
  const kl::message reply = kl::Chunk(5).reply();
  EXPECT_TRUE(reply.has(kl::STD_OBJS));
  EXPECT_FALSE(reply.has(kl::STD_GETALLID));
}

TEST(Chunk, TheObjectBeyondTheNumberIsWhereTheNextOneBegins) {
  kl::Chunk chunk(2);
  EXPECT_TRUE(chunk.add(1, object(1)));
  EXPECT_TRUE(chunk.add(2, object(1)));
  EXPECT_FALSE(chunk.add(9, object(1)));
  EXPECT_EQ(objectsIn(chunk), 2u);
  EXPECT_EQ(chunk.reply().get(kl::STD_GETALLID, 0), 9u);
}

TEST(Chunk, ObjectsFitToTheLastByteAndNotBeyond) {
  const std::size_t bytes = object(100).flattened().size();
  kl::Chunk exact(0, 2 * bytes);
  EXPECT_TRUE(exact.add(1, object(100)));
  EXPECT_TRUE(exact.add(2, object(100)));
  EXPECT_FALSE(exact.add(3, object(0)));
  EXPECT_EQ(exact.reply().get(kl::STD_GETALLID, 0), 3u);

  kl::Chunk short_(0, 2 * bytes - 1);
  EXPECT_TRUE(short_.add(1, object(100)));
  EXPECT_FALSE(short_.add(2, object(100)));
  EXPECT_EQ(objectsIn(short_), 1u);
}

TEST(Chunk, TheFirstObjectAlwaysFits) {
  kl::Chunk chunk(0, 10);
  EXPECT_TRUE(chunk.add(1, object(100)));
  EXPECT_FALSE(chunk.add(2, object(0)));
  EXPECT_EQ(objectsIn(chunk), 1u);
}

}  // namespace
