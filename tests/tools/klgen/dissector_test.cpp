#include "tools/klgen/dissector.h"

#include <gtest/gtest.h>

#include "tests/tools/klgen/described.h"

// Its work in tshark is tried by dissector_test.py.

namespace klgen {
namespace {

bool holds(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(Dissector, NumbersHaveTheNamesOfTheDescription) {
  const std::string text =
      dissectorOf({described("fields = [\n"
                             "  { name = \"state\", field = \"u32:4\", values = { on = 1 } },\n"
                             "  { name = \"key\", field = \"string:std.5\", secret = true }]\n"
                             "settings = [{ name = \"rate\", field = \"u64:7\", unit = \"ms\" }]\n"
                             "[service]\nname = \"lamp\"\nid = 300\n")});
  EXPECT_TRUE(
      holds(text,
            "    [300] = {\n      name = \"lamp\",\n      commands = {},\n      fields = {\n"
            "        [0x08000004] = { name = \"state\", values = { [0x00000001] = \"on\" } },\n"
            "        [0x20fe0005] = { name = \"key\", secret = true },\n      },\n      settings = {\n"
            "        [0x10000007] = { name = \"rate\", unit = \"ms\" },\n      },\n    },\n"))
      << text;
  EXPECT_TRUE(holds(text, "[0x88ff0001] = \"SYS_TO\", "));
  EXPECT_TRUE(holds(text, "[0x00fe0002] = \"GETOBJ\", "));
  EXPECT_TRUE(holds(text, "[0x00fe0004] = \"unknownid\", "));
}

TEST(Dissector, TextIsOnlyText) {
  const std::string text =
      dissectorOf({described("fields = [{ name = \"a\", field = \"u32:4\", unit = \"\\\"]] \\\\ \\n\" }]\n"
                             "[service]\nname = \"lamp\"\nid = 300\n")});
  EXPECT_TRUE(holds(text, "unit = \"\\034]] \\092 \\010\" }")) << text;
}

TEST(Dissector, AServiceWithoutANumberIsNoneOnAnyPath) {
  EXPECT_TRUE(holds(dissectorOf({described("fields = [{ name = \"a\", field = \"u32:4\" }]\n")}),
                    "  services = {\n  },\n"));
}

}  // namespace klgen
