// Programs are searched where the new process would search them.

#include "services/loader/config/missing_programs.h"

#include <gtest/gtest.h>

namespace loader {
namespace {

std::string missing(const std::string& keys) {
  common::Mistakes mistakes;
  const Configuration configuration =
      parseConfiguration("[[service]]\nname = \"netif\"\nid = 32\n" + keys, "f", mistakes);
  EXPECT_TRUE(mistakes.empty());
  addMissingPrograms(configuration, mistakes);
  return mistakes.empty() ? "" : mistakes.front().describe();
}

TEST(MissingPrograms, WhatIsThereIsNoMistake) {
  EXPECT_EQ(missing("command = [\"/bin/sh\"]"), "");
  EXPECT_EQ(missing("command = [\"sh\"]"), "");
  EXPECT_EQ(missing("command = [\"./sh\"]\nfolder = \"/bin\""), "");
  EXPECT_EQ(missing("command = [\"bin/sh\"]\nfolder = \"/\""), "");
  EXPECT_EQ(missing("command = [\"sh\"]\nenvironment = { PATH = \"/nowhere:/bin\" }"), "");
}

TEST(MissingPrograms, AServiceThatSomebodyElseStartsNeedsNone) { EXPECT_EQ(missing(""), ""); }

TEST(MissingPrograms, WhatIsNotThereIsNamed) {
  EXPECT_EQ(missing("command = [\"/nowhere/sh\"]"), "f: netif: command: there is no program '/nowhere/sh'");
  for (const char* keys : {"command = [\"no-such-program\"]", "command = [\"./sh\"]\nfolder = \"/nowhere\"",
                           "command = [\"sh\"]\nenvironment = { PATH = \"/nowhere\" }"})
    EXPECT_NE(missing(keys), "") << keys;
}

TEST(MissingPrograms, FoldersAndOtherFilesAreNoPrograms) {
  EXPECT_NE(missing("command = [\"/bin\"]"), "");
  EXPECT_NE(missing("command = [\"/etc/passwd\"]"), "");
}

}  // namespace
}  // namespace loader
