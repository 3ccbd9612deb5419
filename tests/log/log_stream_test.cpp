#include <sstream>

#include "tests/log/fixture.h"
#include "tests/support/hex.h"

namespace kl {
namespace {

// A record as it came: its source, and its text or, for a registration, its topics.
struct Record {
  bool isRegistration = false;
  unsigned int source = 0;
  std::string text;
  std::vector<unsigned int> topics;
};

unsigned int fieldAt(const std::vector<unsigned char>& bytes, std::size_t at) {
  return static_cast<unsigned int>(bytes.at(at) << 8 | bytes.at(at + 1));
}

Record recordAt(const std::vector<unsigned char>& bytes, std::size_t at) {
  Record record;
  const std::size_t end = at + fieldAt(bytes, at);
  record.isRegistration = fieldAt(bytes, at + 2) == 0;
  record.source = fieldAt(bytes, at + (record.isRegistration ? 6 : 2));
  if (record.isRegistration)
    for (at += 8; at < end; at += 2) record.topics.push_back(fieldAt(bytes, at));
  else
    for (at += 4; at < end; ++at) record.text += static_cast<char>(bytes.at(at));
  return record;
}

// The process's Logger connects to the service of each test.
class LogStream : public test::LogClient {
 protected:
  LogStream() {
    Logger::getLogger()->connectToLog();
    EXPECT_TRUE(service.accept());
    (void)output();
  }
  ~LogStream() override { Logger::getLogger()->closeConnection(); }

  std::vector<Record> records() {
    std::vector<Record> all;
    const std::vector<unsigned char> bytes = service.receive();
    for (std::size_t at = 0; at < bytes.size(); at += fieldAt(bytes, at)) all.push_back(recordAt(bytes, at));
    return all;
  }

  // The texts of the lines that came, in brackets.
  std::string lines() {
    std::string all;
    for (const Record& record : records())
      if (!record.isRegistration) all += "[" + record.text + "]";
    return all;
  }

  // The topics that a stream registers with its first line.
  std::vector<unsigned int> topicsOf(lstream& stream) {
    stream << "x" << std::flush;
    const std::vector<Record> came = records();
    EXPECT_TRUE(!came.empty() && came[0].isRegistration);
    return came.empty() ? std::vector<unsigned int>{} : came[0].topics;
  }

  void mute(lstream& stream) {
    stream << "who am I" << std::flush;
    const std::vector<Record> came = records();
    const unsigned int source = came.back().source;
    service.send("0006" + test::hex({0, static_cast<unsigned char>(source)}) + "0001");
    pass();
  }

  using Topics = std::vector<unsigned int>;

  test::LogService service;
};

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
  lstream zero(echo, 0, 34, 0);
  EXPECT_EQ(topicsOf(zero), (Topics{0, 34}));
}

lstreambuf* bufferOf(unsigned int topic, ...) {
  std::va_list rest;
  va_start(rest, topic);
  auto* buffer = new lstreambuf(topic, rest);
  va_end(rest);
  return buffer;
}

TEST_F(LogStream, ItsBufferServesAnyStream) {
  std::ostream stream(bufferOf(41, 42, 0));
  stream << "abc" << std::endl;
  delete stream.rdbuf(nullptr);
  const std::vector<Record> came = records();
  ASSERT_EQ(came.size(), 2u);
  EXPECT_EQ(came[0].topics, (Topics{41, 42}));
  EXPECT_EQ(came[1].text, "abc");
}

TEST_F(LogStream, EqualListsShareASource) {
  lstream a(51, 52, 0);
  lstream b(51, 52, 0);
  lstream c(52, 51, 0);
  a << "a" << std::endl;
  b << "b" << std::endl;
  c << "c" << std::endl;
  const std::vector<Record> came = records();
  ASSERT_EQ(came.size(), 5u);
  EXPECT_EQ(came[1].source, came[2].source);
  EXPECT_EQ(came[4].source, came[1].source + 1);
}

TEST_F(LogStream, SaysNothingBeforeItsFirstFlush) {
  lstream stream(61);
  stream << "abc";
  EXPECT_TRUE(service.receive().empty());
}

TEST_F(LogStream, AFlushIsALine) {
  lstream stream(1);
  stream << "abc" << std::endl;
  EXPECT_EQ(lines(), "[abc]");
  stream << "a" << 1 << ' ' << std::hex << 255 << std::flush;
  EXPECT_EQ(lines(), "[a1 ff]");
  stream.flush();
  EXPECT_EQ(lines(), "");
}

TEST_F(LogStream, OneNewlineAtTheEndIsLeftOut) {
  lstream stream(1);
  stream << "abc\n" << std::flush;
  EXPECT_EQ(lines(), "[abc]");
  stream << "a\n\n" << std::flush;
  EXPECT_EQ(lines(), "[a\n]");
  stream << "a\nb" << std::flush;
  EXPECT_EQ(lines(), "[a\nb]");
  stream << std::endl;
  EXPECT_EQ(lines(), "[]");
}

TEST_F(LogStream, ANewlineAloneSendsNothing) {
  lstream stream(1);
  stream << "abc\n";
  EXPECT_EQ(lines(), "");
}

TEST_F(LogStream, The256thCharacterSendsTheLine) {
  lstream stream(1);
  stream << std::string(255, 'a');
  EXPECT_EQ(lines(), "");
  stream << "b";
  EXPECT_EQ(lines(), "[" + std::string(255, 'a') + "b]");
  stream << std::string(300, 'c');
  EXPECT_EQ(lines(), "[" + std::string(256, 'c') + "]");
  stream << std::flush;
  EXPECT_EQ(lines(), "[" + std::string(44, 'c') + "]");
}

TEST_F(LogStream, AFullLineThatEndsInANewlineLosesIt) {
  lstream stream(1);
  stream << std::string(255, 'a') << '\n';
  EXPECT_EQ(lines(), "[" + std::string(255, 'a') + "]");
  stream << std::flush;
  EXPECT_EQ(lines(), "");
}

TEST_F(LogStream, ItsEndSendsWhatIsLeft) {
  {
    lstream stream(1);
    stream << "last words";
  }
  EXPECT_EQ(lines(), "[last words]");
}

TEST_F(LogStream, OverflowStoresItsCharacterAndFlushes) {
  const unsigned int topics[] = {1, 0};
  lstreambuf buffer(topics);
  EXPECT_EQ(buffer.overflow(EOF), EOF);
  EXPECT_EQ(lines(), "");
  EXPECT_EQ(buffer.sputc('a'), 'a');
  EXPECT_EQ(buffer.overflow('b'), 'b');
  EXPECT_EQ(lines(), "[ab]");
  EXPECT_EQ(buffer.sync(), 0);
  EXPECT_TRUE(buffer.flushBuffer());
}

TEST_F(LogStream, AnyByteIsText) {
  lstream stream(1);
  const std::string text("\0\xff\x80 ", 4);
  stream << text << std::flush;
  EXPECT_EQ(lines(), "[" + text + "]");
}

TEST_F(LogStream, TheEchoGetsALineForEachFlush) {
  std::ostringstream echo;
  lstream stream(echo, 1, 2, 0);
  stream << "abc" << std::endl;
  EXPECT_EQ(echo.str(), "abc\n");
  stream << "d" << std::flush;
  EXPECT_EQ(echo.str(), "abc\nd\n");
  EXPECT_EQ(lines(), "[abc][d]");
}

TEST_F(LogStream, TheEchoIsFlushedWithTheLine) {
  struct Counting : std::stringbuf {
    int sync() override { return ++syncs, 0; }
    int syncs = 0;
  } counting;
  std::ostream echo(&counting);
  lstream stream(echo, 1);
  stream << "abc" << std::endl;
  EXPECT_EQ(counting.syncs, 1);
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
