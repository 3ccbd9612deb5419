#include <gtest/gtest.h>

#include "tests/tools/klgen/described.h"
#include "tools/klgen/pages.h"

namespace klgen {

TEST(ManPage, HasASectionForEachList) {
  const std::string page = manPageOf(sample());
  for (const char* part : {
           ".TH SAMPLE 5 \"\" \"1.2\" \"Services\"\n.SH NAME\nsample \\- A sample\n",
           ".SH DESCRIPTION\n\\&Service 300.\n\\&It has everything.\n",
           ".SS thing\n\\&The service itself.\n\\&one of many.\n",
           "\\&The key is id.\n\\&The objects outlive the service.\n\\&Changes can be taken back.\n",
           ".SS pool\n\\&Handler 1.\n.TP\n.BR release_all \" 393217\"\n\\&takes everything back\n"
           "\\&Needs the right: change.\n\\&Takes host, bytes.\n\\&Gives released.\n\\&May answer busy.\n",
           ".SH SETTINGS\n.TP\n.BR limit \" u32:1\"\n\\&how many; 1 to 9; without it 5\n",
           ".SH TOPICS\n.TP\n.BR samples \" 300\"\n\\&what happens\n",
       }) {
    EXPECT_NE(page.find(part), std::string::npos) << part << "\nis not in\n" << page;
  }
}

TEST(ManPage, TextIsOnlyText) {
  const std::string page =
      manPageOf(described("fields = [{ name = \"a\", field = \"u32:1\", doc = \".so \\\\x 'y' -z\" }]\n"));
  EXPECT_NE(page.find("\n\\&.so \\ex \\(aqy\\(aq \\-z\n"), std::string::npos) << page;
}

}  // namespace klgen
