#include "services/describe/quoted.h"

#include <gtest/gtest.h>

namespace describe {

TEST(Quoted, TextStandsBetweenMarks) {
  EXPECT_EQ(quoted(""), "\"\"");
  EXPECT_EQ(quoted("a b"), "\"a b\"");
  EXPECT_EQ(quoted("\xc3\xa4"), "\"\xc3\xa4\"");
}

TEST(Quoted, MarksBackslashesAndControlCharactersAreEscaped) {
  EXPECT_EQ(quoted("a\"b\\c"), R"("a\"b\\c")");
  EXPECT_EQ(quoted(std::string("\0\n\x1f\x7f", 4)), R"("\u0000\u000a\u001f\u007f")");
}

}  // namespace describe
