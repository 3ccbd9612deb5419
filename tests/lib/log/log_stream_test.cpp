#include <sstream>

#include "tests/lib/log/stream_fixture.h"

namespace kl {
namespace {

class LogStream : public test::StreamClient {};

TEST_F(LogStream, TakesTopicsUpToTheClosingZero) {
  lstream two(3, 4, 0);
  EXPECT_EQ(topicsOf(two), (Topics{3, 4}));
  lstream three(0x10001u, 2u, 3u, 0u);
  EXPECT_EQ(topicsOf(three), (Topics{1, 2, 3}));  // the low 16 bits
  lstream one(9, 0);
  EXPECT_EQ(topicsOf(one), Topics{9});
}

TEST_F(LogStream, TakesOneTopicWithoutAZero) {
  lstream literal(11);
  EXPECT_EQ(topicsOf(literal), Topics{11});
  lstream named(TOPIC_INFO);
  EXPECT_EQ(topicsOf(named), Topics{7});
  const unsigned short narrow = 12;
  lstream promoted(narrow);
  EXPECT_EQ(topicsOf(promoted), Topics{12});
}

TEST_F(LogStream, AZeroAloneIsATopic) {
  lstream zero(0);
  EXPECT_EQ(topicsOf(zero), Topics{0});
}

TEST_F(LogStream, AZeroInFrontIsATopicInAListAndTheEndOfAnArray) {
  lstream list(0, 4, 0);
  EXPECT_EQ(topicsOf(list), (Topics{0, 4}));
  unsigned int topics[] = {0, 4, 0};
  lstream array(topics);
  EXPECT_EQ(topicsOf(array), Topics{});
}

TEST_F(LogStream, TakesTopicsFromAnArray) {
  const unsigned int topics[] = {21, 22, 0x20017, 0, 5};
  lstream array(topics);
  EXPECT_EQ(topicsOf(array), (Topics{21, 22, 23}));
}

TEST_F(LogStream, TakesTopicsBehindAnEcho) {
  std::ostringstream echo;
  lstream two(echo, 31, 32, 0);
  EXPECT_EQ(topicsOf(two), (Topics{31, 32}));
  lstream one(echo, 33);
  EXPECT_EQ(topicsOf(one), Topics{33});
  lstream closed(echo, 35, 0);
  EXPECT_EQ(topicsOf(closed), Topics{35});
  lstream zero(echo, 0, 34, 0);
  EXPECT_EQ(topicsOf(zero), (Topics{0, 34}));
}

TEST_F(LogStream, TakesTopicsInBraces) {
  lstream two({3, 4});
  EXPECT_EQ(topicsOf(two), (Topics{3, 4}));
  lstream named({TOPIC_INFO, 0xFFFFu});
  EXPECT_EQ(topicsOf(named), (Topics{7, 0xFFFF}));
  lstream zero({0, 4});
  EXPECT_EQ(topicsOf(zero), (Topics{0, 4}));
  std::ostringstream echo;
  lstream echoed(echo, {61, 62});
  EXPECT_EQ(topicsOf(echoed), (Topics{61, 62}));
  echoed << "abc" << std::endl;
  EXPECT_NE(echo.str().find("abc\n"), std::string::npos);
}

TEST_F(LogStream, BracesMayEndWithAZeroAsArgumentsDo) {
  lstream closed{0, 63, 0, 64};
  EXPECT_EQ(topicsOf(closed), (Topics{0, 63}));
}

TEST_F(LogStream, ATopicAbove65535InBracesIsLeftOut) {
  volatile unsigned int tooLarge = 0x10001;
  lstream list({65u, tooLarge, 66u});
  EXPECT_EQ(output(), "log topic above 65535 left out\n");
  EXPECT_EQ(topicsOf(list), (Topics{65, 66}));
}

TEST_F(LogStream, ArgumentsWithoutAClosingZeroEndWithTheLast) {
  volatile unsigned int last = 68;
  lstream open(67, last);
  EXPECT_EQ(topicsOf(open), (Topics{67, 68}));
}

TEST_F(LogStream, EqualListsShareASource) {
  lstream a(51, 52, 0);
  lstream b(51, 52, 0);
  lstream c(52, 51, 0);
  a << "a" << std::endl;
  b << "b" << std::endl;
  c << "c" << std::endl;
  const std::vector<test::Record> came = records();
  ASSERT_EQ(came.size(), 5u);
  EXPECT_EQ(came[1].source, came[2].source);
  EXPECT_EQ(came[4].source, came[1].source + 1);
}

TEST_F(LogStream, IsMutedOnceTheServiceSaysSo) {
  lstream stream(71);
  EXPECT_FALSE(stream.isMuted());
  stream << "abc" << std::flush;
  EXPECT_FALSE(stream.isMuted());
  mute(stream);
  EXPECT_TRUE(stream.isMuted());
  stream << "nobody" << std::endl;
  EXPECT_EQ(lines(), "");
  lstream other(72);
  EXPECT_FALSE(other.isMuted());
}

TEST_F(LogStream, ANewStreamOfAMutedSourceIsNotMutedBeforeItsFirstFlush) {
  lstream muted(73);
  mute(muted);
  lstream stream(73);
  EXPECT_FALSE(stream.isMuted());
  stream << "a" << std::flush;
  EXPECT_TRUE(stream.isMuted());
  EXPECT_EQ(lines(), "");
}

TEST_F(LogStream, WithAnEchoIsNeverMutedAndStillEchoes) {
  std::ostringstream echo;
  lstream stream(echo, 74);
  mute(stream);
  EXPECT_FALSE(stream.isMuted());
  echo.str("");
  stream << "abc" << std::endl;
  EXPECT_EQ(echo.str(), "abc\n");
  EXPECT_EQ(lines(), "");
}

TEST(LogStreamWithoutARunner, LosesItsLinesAndStaysGood) {
  ::testing::internal::CaptureStdout();
  Logger::getLogger();
  (void)::testing::internal::GetCapturedStdout();
  ::testing::internal::CaptureStdout();
  lstream stream(81);
  stream << "abc" << std::endl;
  EXPECT_TRUE(stream.good());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "no runner while connecting to log\n"
            "dropping\n"
            "no runner while connecting to log\n"
            "dropping\n"
            "registeration failed, dropping a line\n");
}

}  // namespace
}  // namespace kl
