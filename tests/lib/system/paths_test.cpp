#include "kl/utilities.h"

#include <gtest/gtest.h>

#include "fixed_paths.h"

namespace {

TEST(Paths, TheSocketsStandWhereTheLibraryLooksForThem) {
  EXPECT_EQ(kl::loaderSocketPath(), kl::paths::kLoaderSocket);
  EXPECT_EQ(kl::logSocketPath(), kl::paths::kLogSocket);
}

TEST(Paths, TheRunFolderHoldsTheFirstStartMarkers) {
  EXPECT_EQ(kl::runFolderPath() + "/", kl::paths::kFirstStartMarkers);
}

}  // namespace
