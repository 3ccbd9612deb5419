#include <cstdarg>
#include <sstream>

#include "tests/lib/log/stream_fixture.h"

namespace kl {
namespace {

class LogBuffer : public test::StreamClient {};

lstreambuf* bufferOf(unsigned int topic, ...) {
  std::va_list rest;
  va_start(rest, topic);
  auto* buffer = new lstreambuf(topic, rest);
  va_end(rest);
  return buffer;
}

TEST_F(LogBuffer, ServesAnyStream) {
  std::ostream stream(bufferOf(41, 42, 0));
  stream << "abc" << std::endl;
  delete stream.rdbuf(nullptr);
  const std::vector<test::Record> came = records();
  ASSERT_EQ(came.size(), 2u);
  EXPECT_EQ(came[0].topics, (Topics{41, 42}));
  EXPECT_EQ(came[1].text, "abc");
}

TEST_F(LogBuffer, SaysNothingBeforeItsFirstFlush) {
  lstream stream(61);
  stream << "abc";
  EXPECT_TRUE(service.receive().empty());
}

TEST_F(LogBuffer, AFlushIsALine) {
  lstream stream(1);
  stream << "abc" << std::endl;
  EXPECT_EQ(lines(), "[abc]");
  stream << "a" << 1 << ' ' << std::hex << 255 << std::flush;
  EXPECT_EQ(lines(), "[a1 ff]");
  stream.flush();
  EXPECT_EQ(lines(), "");
}

TEST_F(LogBuffer, OneNewlineAtTheEndIsLeftOut) {
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

TEST_F(LogBuffer, ANewlineAloneSendsNothing) {
  lstream stream(1);
  stream << "abc\n";
  EXPECT_EQ(lines(), "");
}

TEST_F(LogBuffer, The256thCharacterSendsTheLine) {
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

TEST_F(LogBuffer, AFullLineThatEndsInANewlineLosesIt) {
  lstream stream(1);
  stream << std::string(255, 'a') << '\n';
  EXPECT_EQ(lines(), "[" + std::string(255, 'a') + "]");
  stream << std::flush;
  EXPECT_EQ(lines(), "");
}

TEST_F(LogBuffer, ItsEndSendsWhatIsLeft) {
  {
    lstream stream(1);
    stream << "last words";
  }
  EXPECT_EQ(lines(), "[last words]");
}

TEST_F(LogBuffer, OverflowStoresItsCharacterAndFlushes) {
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

TEST_F(LogBuffer, AnyByteIsText) {
  lstream stream(1);
  const std::string text("\0\xff\x80 ", 4);
  stream << text << std::flush;
  EXPECT_EQ(lines(), "[" + text + "]");
}

TEST_F(LogBuffer, TheEchoGetsALineForEachFlush) {
  std::ostringstream echo;
  lstream stream(echo, 1, 2, 0);
  stream << "abc" << std::endl;
  EXPECT_EQ(echo.str(), "abc\n");
  stream << "d" << std::flush;
  EXPECT_EQ(echo.str(), "abc\nd\n");
  EXPECT_EQ(lines(), "[abc][d]");
}

TEST_F(LogBuffer, TheEchoIsFlushedWithTheLine) {
  struct Counting : std::stringbuf {
    int sync() override { return ++syncs, 0; }
    int syncs = 0;
  } counting;
  std::ostream echo(&counting);
  lstream stream(echo, 1);
  stream << "abc" << std::endl;
  EXPECT_EQ(counting.syncs, 1);
}

}  // namespace
}  // namespace kl
