#include "loop/maps.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/lib/loop/report_reader.h"
#include "tests/support/process/child_process.h"

namespace kl {
namespace {

// Filler that pushes the lines before it out of the buffer's last look.
const std::string kEnd = std::string(99, 'z') + "\n" + std::string(99, 'z') + "\n";

std::string mapsOf(const std::string& content) {
  const int fd = test::fileWith(content);
  const std::string text = test::reportOf([=](ReportText& out) { writeExecutableMaps(fd, out); });
  ::close(fd);
  return text;
}

// A line of `size` bytes without its newline.
std::string line(const std::string& begin, std::size_t size) {
  return begin + std::string(size - begin.size(), '.');
}

TEST(Maps, OnlyExecutableMappingsAreShown) {
  EXPECT_EQ(mapsOf("1-2 r--p a\n2-3 r-xp b\n3-4 rw-p c\n4-5 r-xp d\n" + kEnd), "2-3 r-xp b\n4-5 r-xp d\n");
}

TEST(Maps, AnotherOrderOfTheRightsIsNotAMatch) {
  EXPECT_EQ(mapsOf("1-2 rwxp a\n1-2 --xp b\n1-2 r-xs c\nr-xp \n" + kEnd), "");
}

TEST(Maps, ALineThatFillsTheBufferWithItsNewlineIsWhole) {
  const std::string full = line("1-2 r-xp ", 99) + "\n";
  EXPECT_EQ(mapsOf(full + kEnd), full);
}

TEST(Maps, OfALineLongerThanTheBufferItsFirstHundredBytesAreShown) {
  const std::string exact = line("1-2 r-xp ", 100);
  EXPECT_EQ(mapsOf(exact + "\n2-3 r-xp b\n" + kEnd), exact + "\n2-3 r-xp b\n");
  const std::string longer = line("1-2 r-xp ", 250);
  EXPECT_EQ(mapsOf(longer + "\n2-3 r-xp b\n" + kEnd), longer.substr(0, 100) + "\n2-3 r-xp b\n");
}

TEST(Maps, TheRestOfALongLineIsSkippedWhateverItHolds) {
  const std::string later = line("1-2 rw-p ", 120) + " r-xp " + std::string(150, '.') + " r-xp ";
  EXPECT_EQ(mapsOf(later + "\n2-3 r-xp b\n" + kEnd), "2-3 r-xp b\n");
}

TEST(Maps, LinesInTheBufferAtTheEndAreNotExamined) {
  EXPECT_EQ(mapsOf("1-2 r-xp a\n"), "1-2 r-xp a\n");
  EXPECT_EQ(mapsOf("1-2 r-xp a\n2-3 r-xp b\n"), "1-2 r-xp a\n");
  EXPECT_EQ(mapsOf("1-2 r-xp a"), "");
}

TEST(Maps, ShortReadsMakeNoDifference) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const std::string text = test::reportOf([&](ReportText& out) {
    const test::ChildProcess writer([&] {
      for (const char c : std::string("1-2 r-xp a\n2-3 rw-p b\n3-4 r-xp c\n"))
        if (::write(ends[1], &c, 1) != 1) ::_exit(1);
    });
    ::close(ends[1]);
    writeExecutableMaps(ends[0], out);
  });
  ::close(ends[0]);
  EXPECT_EQ(text.substr(0, 11), "1-2 r-xp a\n");
  EXPECT_EQ(text.find("rw-p"), std::string::npos);
}

TEST(Maps, AnEmptyFileGivesNothing) { EXPECT_EQ(mapsOf(""), ""); }

}  // namespace
}  // namespace kl
