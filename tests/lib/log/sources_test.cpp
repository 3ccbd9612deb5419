#include <vector>

#include "tests/lib/log/fixture.h"
#include "tests/support/hex.h"

namespace kl {
namespace {

using test::say;

constexpr std::size_t kMostTopics = 32763;

class LogSources : public test::ConnectedLogClient {};

TEST_F(LogSources, NumbersItsSourcesFromOne) {
  EXPECT_EQ(logger.registerSource({5, 7})->id, 1u);
  EXPECT_EQ(logger.registerSource({5})->id, 2u);
  EXPECT_EQ(logger.registerSource({7, 5})->id, 3u);
  EXPECT_EQ(logger.registerSource({})->id, 4u);
}

TEST_F(LogSources, GivesEqualListsTheSameSource) {
  Source* first = logger.registerSource({5, 7});
  logger.registerSource({6});
  EXPECT_EQ(logger.registerSource({5, 7}), first);
  EXPECT_EQ(first->id, 1u);
  EXPECT_EQ(*first->topics, (std::vector<unsigned short>{5, 7}));
}

TEST_F(LogSources, TellsListsOfOneLengthApart) {
  unsigned int number = 0;
  for (const unsigned short topic : std::initializer_list<unsigned short>{1, 2, 0x100, 0x101, 0xffff}) {
    EXPECT_EQ(logger.registerSource({topic})->id, ++number);
    EXPECT_EQ(logger.registerSource({7, topic})->id, ++number);
  }
}

TEST_F(LogSources, RegistersANewSourceAtOnceAndOnlyThen) {
  Source* source = logger.registerSource({5, 7});
  EXPECT_TRUE(source->registered);
  EXPECT_FALSE(source->muted);
  EXPECT_EQ(service.received(), "000c 0000 0000 0001 0005 0007");
  logger.registerSource({5, 7});
  say(logger, source, "");
  EXPECT_EQ(service.received(), "0004 0001");
}

TEST_F(LogSources, ALongListOfTopicsIsOneRecord) {
  const std::vector<unsigned short> topics(kMostTopics, 0x1234);
  EXPECT_TRUE(logger.registerSource(topics)->registered);
  const std::vector<unsigned char> record = service.receive();
  ASSERT_EQ(record.size(), 65534u);
  EXPECT_EQ(test::hex({record.begin(), record.begin() + 10}), "fffe 0000 0000 0001 1234");
}

TEST_F(LogSources, AListThatNoRecordHoldsIsNeverRegistered) {
  Source* source = logger.registerSource(std::vector<unsigned short>(kMostTopics + 1, 1));
  say(logger, source, "abc");
  EXPECT_EQ(service.received(), "");
  EXPECT_EQ(output(), "registeration failed, dropping a line\n");
}

}  // namespace
}  // namespace kl
