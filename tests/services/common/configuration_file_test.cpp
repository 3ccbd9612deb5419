#include "services/common/configuration_file.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

namespace common {
namespace {

namespace fs = std::filesystem;

struct ConfigurationFile : testing::Test {
  ConfigurationFile() {
    char name[] = "/tmp/kl-file-XXXXXX";
    folder = ::mkdtemp(name);
  }
  ~ConfigurationFile() override { fs::remove_all(folder); }

  std::string write(const std::string& text) const {
    const std::string file = folder + "/file";
    std::ofstream(file, std::ios::binary) << text;
    return file;
  }
  std::string told() const {
    std::string all;
    for (const Mistake& m : mistakes) all += m.describe() + "\n";
    return all;
  }

  std::string folder;
  Mistakes mistakes;
};

TEST_F(ConfigurationFile, TheWholeTextIsRead) {
  const std::string text = std::string(100000, 'x') + std::string(1, '\0') + "\nend";
  EXPECT_EQ(readFile(write(text), mistakes), text);
  EXPECT_EQ(readFile(write(""), mistakes), "");
  EXPECT_EQ(told(), "");
}

TEST_F(ConfigurationFile, OneThatIsMissingIsAMistakeUnlessItMayBe) {
  EXPECT_FALSE(readFile(folder + "/none", mistakes));
  EXPECT_EQ(told(), folder + "/none: expected a file that can be read: No such file or directory\n");
  mistakes.clear();
  EXPECT_EQ(readFileIfThere(folder + "/none", mistakes), "");
  EXPECT_EQ(readFileIfThere(write("a = 1") + "/none", mistakes), "");
  EXPECT_EQ(readFileIfThere(folder + "/file", mistakes), "a = 1");
  EXPECT_EQ(told(), "");
}

TEST_F(ConfigurationFile, AFolderIsAMistakeEvenWhereNothingNeedBe) {
  EXPECT_FALSE(readFile(folder, mistakes));
  EXPECT_FALSE(readFileIfThere(folder, mistakes));
  const std::string line = folder + ": expected a file that can be read: Is a directory\n";
  EXPECT_EQ(told(), line + line);
}

TEST_F(ConfigurationFile, OneThatCannotBeReadIsAMistake) {
  EXPECT_FALSE(readFile("/proc/self/mem", mistakes));  // opens, and fails to read at 0
  EXPECT_EQ(told(), "/proc/self/mem: expected a file that can be read: Input/output error\n");
}

TEST_F(ConfigurationFile, OneWithoutAnEndIsAMistake) {
  EXPECT_FALSE(readFile("/dev/zero", mistakes));
  EXPECT_EQ(told(), "/dev/zero: expected a file of at most 1048576 bytes\n");
  EXPECT_TRUE(readFile(write(std::string(kMostFileBytes, 'x')), mistakes));
  EXPECT_FALSE(readFile(write(std::string(kMostFileBytes + 1, 'x')), mistakes));
}

TEST(Mistake, SaysWhereAndWhat) {
  EXPECT_EQ((Mistake{"file", 3, "expected a key"}).describe(), "file:3: expected a key");
  EXPECT_EQ((Mistake{"file", 0, "expected a file"}).describe(), "file: expected a file");
}

TEST(Mistake, IsReportedInOneLineThatNoTerminalObeys) {
  testing::internal::CaptureStderr();
  report({{"a", 1, "expected x"}, {"b", 0, "found \"\x1b[2J\n\""}}, "kl-x");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "kl-x: a:1: expected x\nkl-x: b: found \"\\x1b[2J\\x0a\"\n");
}

}  // namespace
}  // namespace common
