#include <syslog.h>  // in front of the public headers, which have to live with its macro LOG_PID

#include "services/logd/asking/line_table.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

using Objects = std::vector<kl::message::flat_message>;

// The texts of the whole table, chunk by chunk.
std::vector<std::string> readAll(const Ring& ring, const kl::message& request, unsigned int count,
                                 int& chunks) {
  std::vector<std::string> texts;
  unsigned int start = kl::BADID;
  for (chunks = 1;; ++chunks) {
    const kl::message reply = getAll(ring, request, start, count);
    for (const kl::message object : reply.get(kl::STD_OBJS, {}))
      texts.push_back(object.get(kl::LOG_TEXT, ""));
    if (!reply.has(kl::STD_GETALLID)) return texts;
    start = reply.get(kl::STD_GETALLID, 0);
  }
}

TEST(LineTable, AnObjectHasEverythingOfItsLine) {
  const kl::message object =
      objectOf({123456789012345ull, originOf({32, 5}, "netif", 812, 3, 1000), "down"}, 9);
  EXPECT_EQ(object.get(kl::STD_ID, 0), 9u);
  EXPECT_EQ(object.get(kl::LOG_TIME, 0), 123456789012345ull);
  EXPECT_EQ(object.get(kl::LOG_PROCESS, ""), "netif");
  EXPECT_EQ(object.get(kl::LOG_PROCESS_ID, 0), 812u);
  EXPECT_EQ(object.get(kl::LOG_UID, 0), 1000u);
  EXPECT_EQ(object.get(kl::LOG_SOURCE, 0), 3u);
  EXPECT_EQ(object.get(kl::LOG_TOPICS, {}), (std::vector<unsigned int>{32, 5}));
  EXPECT_EQ(object.get(kl::LOG_TEXT, ""), "down");
}

TEST(LineTable, ItIsReadInChunksInOrder) {
  Ring ring(1000000);
  for (int i = 0; i < 1000; ++i) ring.add(lineOf(std::to_string(i)));
  int chunks = 0;
  const auto texts = readAll(ring, {}, 0, chunks);
  ASSERT_EQ(texts.size(), 1000u);
  for (std::size_t i = 0; i < 1000; ++i) EXPECT_EQ(texts[i], std::to_string(i));
  EXPECT_GT(chunks, 3);
  EXPECT_LT(chunks, 10);
  EXPECT_EQ(readAll(ring, {}, 100, chunks).size(), 1000u);
  EXPECT_EQ(chunks, 10);
}

TEST(LineTable, AReplyFitsAFrameWhateverTheLinesAre) {
  Ring ring(1000000);
  for (int i = 0; i < 10; ++i) ring.add(lineOf(std::string(32800, 'x')));
  std::vector<unsigned char> flat;
  getAll(ring, {}, kl::BADID, 0).flatten(flat);
  EXPECT_LT(flat.size(), 65000u);
  int chunks = 0;
  EXPECT_EQ(readAll(ring, {}, 0, chunks).size(), 10u);
}

TEST(LineTable, OnlyLinesThatPassTheFilterAreShownAndCounted) {
  Ring ring(1000000);
  for (int i = 0; i < 100; ++i) ring.add(lineOf(std::to_string(i), {static_cast<Topic>(i % 10)}));
  kl::message request;
  request.insert(kl::LOG_TOPICS, {3});
  int chunks = 0;
  const auto texts = readAll(ring, request, 0, chunks);
  ASSERT_EQ(texts.size(), 10u);
  EXPECT_EQ(texts[1], "13");
  EXPECT_EQ(getCount(ring, request).get(kl::STD_GETALLNO, 0), 10u);
  EXPECT_EQ(getCount(ring, {}).get(kl::STD_GETALLNO, 0), 100u);
}

TEST(LineTable, ALineIsFoundById) {
  Ring ring(1000000);
  ring.add(lineOf("a"));
  EXPECT_EQ(getObject(ring, 1).get(kl::LOG_TEXT, ""), "a");
  unsigned int code = 0;
  EXPECT_TRUE(kl::isError(getObject(ring, 2), &code));
  EXPECT_EQ(code, kl::ERROR_UNKNOWNID);
  ring.add(lineOfUser(1000, "b"));
  EXPECT_EQ(getObject(ring, 2, 1000).get(kl::LOG_TEXT, ""), "b");
  EXPECT_TRUE(kl::isError(getObject(ring, 2, 1001), &code));
  EXPECT_EQ(code, kl::ERROR_UNKNOWNID) << "as if it were not there";
}

}  // namespace
}  // namespace logd::test
