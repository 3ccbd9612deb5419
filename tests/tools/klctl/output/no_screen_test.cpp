// klctl without ncurses, whose screen is in this program the one of no_screen.cpp: there is none on any terminal.

#include <gtest/gtest.h>

#include "tools/klctl/output/screen.h"

namespace klctl {
namespace {

TEST(NoScreen, NoTerminalIsTaken) {
  testing::internal::CaptureStdout();
  {
    const Screen screen;
    EXPECT_FALSE(screen.isOpen());
    EXPECT_EQ(screen.key(), 0);
    screen.show({"a line"}, 0);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
}  // namespace klctl
