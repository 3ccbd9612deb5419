#include <algorithm>

#include "tests/lib/log/fixture.h"
#include "tests/support/process/descriptors.h"

namespace kl {
namespace {

using test::say;

class LogMuting : public test::ConnectedLogClient {
 protected:
  // The service says so, and the loop takes one pass.
  void hear(const std::string& digits) {
    service.send(digits);
    pass();
  }

  Source* first = logger.registerSource({5});
  Source* second = logger.registerSource({6});
  Source* third = logger.registerSource({7});
};

TEST_F(LogMuting, MutesAndUnmutesOneSource) {
  hear("0006 0001 0001");
  EXPECT_TRUE(first->muted);
  EXPECT_FALSE(second->muted);
  hear("0006 0001 0000");
  EXPECT_FALSE(first->muted);
  EXPECT_EQ(output(), "");
}

TEST_F(LogMuting, AMutedLineIsDroppedWithoutAWord) {
  hear("0006 0002 0001");
  (void)service.receive();
  test::ScriptedSocket calls;
  say(logger, second, "abc");
  EXPECT_TRUE(calls.writes().empty());
  say(logger, first, "d");
  EXPECT_EQ(service.received(), "0005 0001 64");
  EXPECT_EQ(output(), "");
}

TEST_F(LogMuting, AnyValueButZeroMutes) {
  hear("0006 0001 0100");
  EXPECT_TRUE(first->muted);
}

TEST_F(LogMuting, SeveralRecordsOfOneReadAreObeyedInOrder) {
  hear("0006 0001 0001 0006 0003 0001 0006 0001 0000");
  EXPECT_FALSE(first->muted);
  EXPECT_TRUE(third->muted);
}

TEST_F(LogMuting, SourcesThatThereAreNotAreIgnored) {
  hear("0006 0009 0001 0006 0000 0001 0006 ffff 0001 0006 0004 0001 0006 0003 0001");
  EXPECT_FALSE(first->muted || second->muted);
  EXPECT_TRUE(third->muted);
  EXPECT_EQ(output(), "");
  EXPECT_FALSE(service.accept());
}

TEST_F(LogMuting, AStrayByteEndsTheConnection) {
  (void)service.receive();
  hear("0006 0001 0001 00");
  EXPECT_EQ(output(), "msg too short, dropping\n");
  EXPECT_TRUE(service.isLeft());
  EXPECT_FALSE(first->muted);  // as after every end of a connection
}

TEST_F(LogMuting, ARecordIsNotPutTogetherFromTwoReads) {
  (void)service.receive();
  hear("0006 00");
  EXPECT_EQ(output(), "msg too short, dropping\n");
  EXPECT_TRUE(service.isLeft());
}

TEST_F(LogMuting, ARecordOfAnotherLengthEndsTheConnection) {
  (void)service.receive();
  hear("0007 0001 0001 0006 0002 0001");
  EXPECT_EQ(output(), "msg has bad len, dropping\n");
  EXPECT_TRUE(service.isLeft());
}

TEST_F(LogMuting, FortyTwoRecordsFitIntoARead) {
  std::string records;
  for (int i = 0; i < 42; ++i) records += "0006 0003 0001 ";
  hear(records);
  EXPECT_TRUE(third->muted);
  EXPECT_EQ(output(), "");
}

TEST_F(LogMuting, TheFortyThirdIsCutByTheRead) {
  (void)service.receive();
  std::string records;
  for (int i = 0; i < 43; ++i) records += "0006 0003 0001 ";
  hear(records);
  EXPECT_EQ(output(), "msg too short, dropping\n");
}

TEST_F(LogMuting, AnotherDescriptorIsAWrongAlarm) {
  logger.onSocket(-7, POLLIN);
  EXPECT_EQ(output(), "wrong alarm\n");
  say(logger, first, "abc");
  EXPECT_EQ(output(), "");
}

TEST(LogMutingAlarm, WithoutAnythingToReadIsIgnored) {
  Runner runner;
  test::LogService service;
  const std::vector<int> others = test::openDescriptors();
  Logger logger;
  int own = 0;
  for (const int fd : test::openDescriptors())
    if (std::find(others.begin(), others.end(), fd) == others.end()) own = fd;
  ::testing::internal::CaptureStdout();
  logger.onSocket(own, POLLIN);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  ASSERT_TRUE(service.accept());
  EXPECT_FALSE(service.isLeft());
}

}  // namespace
}  // namespace kl
