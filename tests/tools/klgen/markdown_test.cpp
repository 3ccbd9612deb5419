#include <gtest/gtest.h>

#include "tests/tools/klgen/described.h"
#include "tools/klgen/pages.h"

namespace klgen {

TEST(Markdown, HasATableForEachList) {
  const std::string page = markdownOf(sample());
  for (const char* part : {
           "# A sample\n\nThe service `sample`, 300, version 1.2.\n\nIt has everything.\n",
           "## `thing`\n\nThe path is `[300]`. one of many. The key is `id`. The objects outlive the "
           "service. Changes can be taken back.\n",
           "## `pool`\n\nThe path is `[300, 1]`.\n",
           "| `setobj` | change |  |  | `unknownid` |  |\n",
           "| `release_all` 393217 | change | `host`, `bytes` | `released` | `busy` | takes everything back "
           "|\n",
           "| `state` | `u32:1` | how it is; 1 stopped, 2 running, 3 delete |\n",
           "## Settings\n\n| name | field | |\n|---|---|---|\n| `limit` | `u32:1` | how many; 1 to 9; "
           "without it 5 "
           "|\n",
           "## Topics\n\n| name | number | |\n|---|---|---|\n| `samples` | 300 | what happens |\n",
       }) {
    EXPECT_NE(page.find(part), std::string::npos) << part << "\nis not in\n" << page;
  }
}

TEST(Markdown, TextIsOnlyText) {
  const std::string page =
      markdownOf(described("fields = [{ name = \"a\", field = \"u32:1\", doc = \"x | `y` <b>\\nz\" }]\n"));
  EXPECT_NE(page.find("| `a` | `u32:1` | x \\| \\`y\\` \\<b\\> z |\n"), std::string::npos) << page;
}

}  // namespace klgen
