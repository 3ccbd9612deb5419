#include "services/describe/notes.h"

#include <gtest/gtest.h>

#include "tests/services/describe/described.h"

namespace describe {

TEST(Notes, SayEverythingThatADescriptionSaysOfAField) {
  const Description d = described(
      "fields = [\n"
      "{ name = \"a\", field = \"u32:1\", doc = \"what it is\", unit = \"s\", min = 1, max = 9, required = "
      "true },\n"
      "{ name = \"b\", field = \"u32:2\", min = 1, values = { on = 1, off = 0 }, since = \"1.1\" },\n"
      "{ name = \"c\", field = \"string:3\", max = 9, secret = true, deprecated = \"b\" },\n"
      "{ name = \"d\", field = \"u32:4\" },\n"
      "{ name = \"f\", field = \"u32:6\", unit = \"1/100\" }]\n"
      "settings = [{ name = \"e\", field = \"u32:5\", default = 7 }]\n");
  EXPECT_EQ(notesOf(d.fields[0]), "what it is; in s; 1 to 9; always there");
  EXPECT_EQ(notesOf(d.fields[1]), "at least 1; 0 off, 1 on; since 1.1");
  EXPECT_EQ(notesOf(d.fields[2]), "at most 9; secret; deprecated: b");
  EXPECT_EQ(notesOf(d.fields[3]), "");
  EXPECT_EQ(notesOf(d.fields[4]), "in units of 1/100");
  EXPECT_EQ(notesOf(d.settings[0]), "without it 7");
}

}  // namespace describe
