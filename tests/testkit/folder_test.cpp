#include "testkit/folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "kl/test.h"
#include "kl/utilities.h"

namespace kl::test {
namespace {

namespace fs = std::filesystem;

TEST(Folder, IsTheRootOfAllFixedPathsAndEmptyForEachBus) {
  std::string root;
  {
    const TestBus bus;
    root = underRoot("");
    ASSERT_FALSE(root.empty());
    std::ofstream(root + "/kelo/left") << "something";
  }
  const bool isOurs = root.find("/kl-test.") != std::string::npos;  // else KL_ROOT was given
  const TestBus bus;
  EXPECT_EQ(underRoot(""), root);
  EXPECT_TRUE(fs::is_directory(underRoot("/kelo/run")));
  EXPECT_NE(fs::exists(root + "/kelo/left"), isOurs);
}

}  // namespace
}  // namespace kl::test
