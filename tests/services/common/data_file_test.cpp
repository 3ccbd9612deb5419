#include "services/common/data_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace common {
namespace {

namespace fs = std::filesystem;

class DataFile : public testing::Test {
 protected:
  DataFile() {
    char name[] = "/tmp/data_file_XXXXXX";
    folder_ = ::mkdtemp(name);
  }
  ~DataFile() override { fs::remove_all(folder_); }

  // A path of the folder, with or without a file.
  std::string made(const std::string& name) const {
    std::ofstream(folder_ / name).flush();
    return none(name);
  }
  std::string none(const std::string& name) const { return (folder_ / name).string(); }

  static fs::path programs() { return fs::read_symlink("/proc/self/exe").parent_path(); }
  std::string fromPrograms(const std::string& path) const {
    return fs::path(path).lexically_relative(programs()).string();
  }

  fs::path folder_;
};

TEST_F(DataFile, UnderTheRootComesFirst) {
  EXPECT_EQ(findData(made("a"), fromPrograms(made("b")), made("c")), none("a"));
}

TEST_F(DataFile, BesideTheProgramComesNext) {
  EXPECT_EQ(findData(none("a"), fromPrograms(made("b")), made("c")), none("b"));
}

TEST_F(DataFile, WithoutARootBesideTheProgramComesFirst) {
  EXPECT_EQ(findData(made("c"), fromPrograms(made("b")), made("c")), none("b"));
}

TEST_F(DataFile, ThePrefixIsLast) {
  EXPECT_EQ(findData(none("a"), fromPrograms(none("b")), made("c")), none("c"));
  EXPECT_EQ(findData(none("a"), fromPrograms(none("b")), none("c")), none("c"));
}

}  // namespace
}  // namespace common
