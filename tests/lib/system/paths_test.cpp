#include "kl/utilities.h"

#include <gtest/gtest.h>

#include "fixed_paths.h"

namespace {

TEST(Paths, TheSocketsStandWhereTheLibraryLooksForThem) {
  EXPECT_EQ(kl::loaderSocketPath(), kl::underRoot(kl::paths::kLoaderSocket));
  EXPECT_EQ(kl::logSocketPath(), kl::underRoot(kl::paths::kLogSocket));
}

TEST(Paths, TheRunFolderHoldsTheFirstStartMarkers) {
  EXPECT_EQ(kl::runFolderPath(), kl::underRoot(kl::paths::kRunFolder));
}

}  // namespace
