#include "services/loader/crashes/program_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

using loader::ProgramFile;

TEST(ProgramFileTest, OfAProcessIsTheFileThatItRuns) {
  const ProgramFile own = ProgramFile::ofProcess(::getpid());
  struct stat status {};
  ASSERT_EQ(::stat(own.path.c_str(), &status), 0);
  EXPECT_EQ(own.inode, status.st_ino);
  EXPECT_FALSE(own.buildId.empty());
  EXPECT_EQ(ProgramFile::atPath(own.path).buildId, own.buildId);
}

TEST(ProgramFileTest, OfNobodyThereIsNone) { EXPECT_EQ(ProgramFile::ofProcess(0).path, ""); }

// Opening one of these would wait, or do something.
TEST(ProgramFileTest, WhatIsNoFileIsNotRead) {
  const std::string pipe = "/tmp/program_file_" + std::to_string(::getpid());
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& path :
       {pipe, std::string("/dev/null"), std::string("/tmp"), std::string("/nowhere/x")}) {
    EXPECT_EQ(ProgramFile::atPath(path).path, path);
    EXPECT_EQ(ProgramFile::atPath(path).inode, 0u);
  }
  ::unlink(pipe.c_str());
}

}  // namespace
