#include "tools/klctl/ask/fetch.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "tests/tools/klctl/expect_failure.h"

namespace klctl {
namespace {

kl::message::flat_message object(unsigned int id) {
  kl::message m;
  m.insert(kl::STD_ID, id);
  kl::message::flat_message bytes;
  m.flatten(bytes);
  return bytes;
}

kl::message chunk(const std::vector<unsigned int>& ids) {
  std::vector<kl::message::flat_message> objects;
  for (const unsigned int id : ids) objects.push_back(object(id));
  kl::message m;
  m.insert(kl::STD_OBJS, objects);
  return m;
}

kl::message chunk(const std::vector<unsigned int>& ids, unsigned int next) {
  kl::message m = chunk(ids);
  m.insert(kl::STD_GETALLID, next);
  return m;
}

}  // namespace

TEST(Fetch, ARefusalWithoutATextSaysHowToFindOutWhy) {
  const kl::message bare = kl::errorMsg(kl::ERROR_NOTALLOWED, "");
  EXPECT_EQ(errorSentence("netif/3:2", bare, kl::CMD_SETOBJ),
            "netif/3:2: std failure: not allowed (9); klctl rights explain " + ownName() +
                " netif/3 CMD_SETOBJ says why");
  EXPECT_EQ(
      errorSentence("netif", bare, "loader", 0x60001),
      "netif: std failure: not allowed (9); klctl rights explain " + ownName() + " loader 0x60001 says why");
}

TEST(Fetch, ARefusalWithATextIsLeftAlone) {
  EXPECT_EQ(errorSentence("netif", kl::errorMsg(kl::ERROR_NOTALLOWED, "lacks the right change"), kl::CMD_SET),
            "netif: lacks the right change (9)");
  EXPECT_EQ(errorSentence("netif", kl::errorMsg(kl::ERROR_BUSY, ""), kl::CMD_SET),
            "netif: " + kl::getErrorDescr(kl::ERROR_BUSY, ""));
}

TEST(Fetch, ChunksAreJoinedInOrder) {
  std::vector<unsigned int> starts;
  const auto objects = fetchAll(kl::message(), "t", [&](const kl::message& request) {
    starts.push_back(request.get(kl::STD_GETALLID, kl::BADID));
    if (starts.size() == 1) return chunk({1, 2}, 5);
    if (starts.size() == 2) return chunk({}, 7);  // an empty chunk does not end the table
    return chunk({7});
  });
  EXPECT_EQ(starts, (std::vector<unsigned int>{kl::BADID, 5, 7}));
  EXPECT_EQ(objects, (std::vector<kl::message::flat_message>{object(1), object(2), object(7)}));
}

TEST(Fetch, EveryChunkIsAskedForWithTheSameWishes) {
  kl::message request;
  request.insert(kl::STD_GETALLNO, 1);
  request.insert_string(0x20000001, "filter");
  int asked = 0;
  (void)fetchAll(request, "t", [&](const kl::message& m) {
    EXPECT_EQ(m.get(kl::STD_GETALLNO, 0), 1u);
    EXPECT_EQ(m.get_string(0x20000001, ""), "filter");
    return ++asked == 1 ? chunk({1}, 2) : chunk({2});
  });
  EXPECT_EQ(asked, 2);
}

TEST(Fetch, AReplyWithoutObjectsIsAnEmptyTable) {
  EXPECT_TRUE(fetchAll(kl::message(), "t", [](const kl::message&) { return kl::message(); }).empty());
}

TEST(Fetch, AnErrorInTheMiddleEndsTheFetching) {
  int asked = 0;
  const Told told = failureOf([&] {
    (void)fetchAll(kl::message(), "netif", [&](const kl::message&) {
      return ++asked == 1 ? chunk({1}, 2) : kl::errorMsg(kl::ERROR_BRKPATH, "");
    });
  });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "netif: std failure: broken path (2)");
}

TEST(Fetch, ATableThatRunsInACircleIsLeft) {
  int asked = 0;
  const Told told = failureOf([&] {
    (void)fetchAll(kl::message(), "netif",
                   [&](const kl::message&) { return chunk({1}, ++asked % 2 == 1 ? 7 : 8); });
  });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "netif: the table does not end, it continues at 7 for the second time");
  EXPECT_EQ(asked, 3);
}

TEST(Fetch, TheTextOfAnErrorReplyIsTold) {
  const Told told = failureOf([] {
    (void)fetch(kl::message(), "netif",
                [](const kl::message&) { return kl::errorMsg(kl::ERROR_FAILED, "no cable"); });
  });
  EXPECT_EQ(told.sentence, "netif: no cable (6)");
}

}  // namespace klctl
