#include "kl/logger.h"

#include <optional>
#include <vector>

#include "fixed_paths.h"
#include "tests/lib/log/fixture.h"
#include "tests/support/hex.h"
#include "tests/support/process/descriptors.h"

namespace kl {
namespace {

using test::say;

constexpr unsigned int kMostTextBytes = 65531;

class LoggerLines : public test::ConnectedLogClient {};

TEST_F(LoggerLines, ALineIsItsNumberAndItsText) {
  logger.registerSource({1});
  Source* second = logger.registerSource({2});
  (void)service.receive();
  say(logger, second, "abc");
  EXPECT_EQ(service.received(), "0007 0002 6162 63");
  EXPECT_EQ(output(), "");
}

TEST_F(LoggerLines, ALineIsOneWriteWhateverItsLength) {
  Source* source = logger.registerSource({1});
  for (const std::size_t length : {0u, 1u, 508u, 509u, kMostTextBytes}) {
    test::ScriptedSocket calls;
    say(logger, source, std::string(length, 'x'));
    EXPECT_EQ(calls.writes(), std::vector<std::size_t>{length + 4});
  }
}

// The records of one line, checked to be whole; their texts behind each other.
std::string textOf(const std::vector<unsigned char>& bytes, std::vector<std::size_t>& lengths) {
  std::string text;
  for (std::size_t at = 0; at + 4 <= bytes.size();) {
    const std::size_t length = static_cast<std::size_t>(bytes[at]) << 8 | bytes[at + 1];
    lengths.push_back(length);
    EXPECT_EQ(bytes[at + 3], 1);
    if (length < 4 || at + length > bytes.size()) return text + "(torn)";
    text.append(bytes.begin() + static_cast<std::ptrdiff_t>(at + 4),
                bytes.begin() + static_cast<std::ptrdiff_t>(at + length));
    at += length;
  }
  return text;
}

TEST_F(LoggerLines, ATextLongerThanARecordBecomesSeveralAndNothingIsLost) {
  Source* source = logger.registerSource({1});
  (void)service.receive();
  std::string text;
  for (int i = 0; text.size() < 2 * kMostTextBytes + 5; ++i) text += std::to_string(i) + ' ';
  text.resize(2 * kMostTextBytes + 5);
  for (const std::size_t length :
       {text.size(), std::size_t{kMostTextBytes}, std::size_t{kMostTextBytes} + 1}) {
    std::vector<std::size_t> lengths;
    say(logger, source, std::string_view(text).substr(0, length));
    EXPECT_EQ(textOf(service.receive(), lengths), text.substr(0, length));
    EXPECT_EQ(lengths.size(), (length + kMostTextBytes - 1) / kMostTextBytes);
    EXPECT_EQ(lengths.front(), 65535u);
  }
  EXPECT_EQ(output(), "");
}

TEST_F(LoggerLines, ALongTextTakesLittleStack) {
  Source* source = logger.registerSource({1});
  const std::string text(kMostTextBytes, 'x');
  test::ScriptedSocket calls;
  say(logger, source, text);
  EXPECT_LT(calls.stackBelow(__builtin_frame_address(0)), 8192u);
}

class LoggerAlone : public test::LogClient {};

TEST_F(LoggerAlone, ALineWithoutAServiceIsDropped) {
  Logger logger;
  EXPECT_EQ(output(), "could not connect to log: No such file or directory\n");
  Source* source = logger.registerSource({5});
  EXPECT_EQ(output(),
            "could not connect to log: No such file or directory\n"
            "dropping\n");
  EXPECT_FALSE(source->registered);
  say(logger, source, "abc");
  EXPECT_EQ(output(),
            "could not connect to log: No such file or directory\n"
            "dropping\n"
            "registeration failed, dropping a line\n");
}

TEST_F(LoggerAlone, TheFirstLineWithAServiceGoesOut) {
  Logger logger;
  Source* source = logger.registerSource({5});
  test::LogService service;
  (void)output();
  say(logger, source, "abc");
  ASSERT_TRUE(service.accept());
  EXPECT_EQ(service.received(), "000a 0000 0000 0001 0005 0007 0001 6162 63");
  EXPECT_EQ(output(), "");
}

TEST_F(LoggerAlone, TenThousandLinesWithoutAServiceHoldOneDescriptor) {
  const std::size_t before = test::openDescriptors().size();
  Logger logger;
  Source* source = logger.registerSource({5});
  for (int i = 0; i < 10000; ++i) say(logger, source, "nobody hears this");
  EXPECT_EQ(test::openDescriptors().size(), before + 1);
}

TEST(LoggerWithoutARunner, DropsEveryLine) {
  test::LogService service;
  ::testing::internal::CaptureStdout();
  Logger logger;
  Source* source = logger.registerSource({5});
  say(logger, source, "abc");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "no runner while connecting to log\n"
            "no runner while connecting to log\n"
            "dropping\n"
            "no runner while connecting to log\n"
            "dropping\n"
            "registeration failed, dropping a line\n");
  EXPECT_FALSE(service.accept());
}

}  // namespace
}  // namespace kl
