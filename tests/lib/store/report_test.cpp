#include "store/report.h"

#include "tests/lib/store/store_files.h"

namespace {

using kl::test::linesOf;

TEST(StoreReport, EachReportIsOneLine) {
  EXPECT_EQ(linesOf([] { kl::reportStore("STORE: openIdx failed"); }), "STORE: openIdx failed\n");
  EXPECT_EQ(linesOf([] { kl::reportStore("len ", 1); }), "len 1\n");
}

}  // namespace
