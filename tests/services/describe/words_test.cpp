#include "services/describe/words.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "kl/looper.h"

namespace describe {

TEST(DescriptionWords, CommandsAreFoundByEachFormOfTheirNames) {
  for (const StandardCommand& command : standardCommands()) {
    EXPECT_EQ(findStandardCommand(command.name), &command);
    EXPECT_EQ(findStandardCommand(shortForm(command.name)), &command);
  }
  EXPECT_EQ(findStandardCommand("CMD_GETCOUNT")->code, kl::CMD_GETCOUNT);
  EXPECT_EQ(findStandardCommand("explode"), nullptr);
}

TEST(DescriptionWords, EachCommandNeedsTheRightThatTheLibraryAsksFor) {
  for (const StandardCommand& command : standardCommands()) {
    const auto bits = findRight(command.right);
    ASSERT_TRUE(bits.has_value()) << command.name;
    kl::message request;
    request.insert(kl::SYS_CMD, command.code);
    request.insert(kl::SYS_POLICY, *bits);
    EXPECT_TRUE(kl::policies().is_allowed(request)) << command.name;
    request.insert(kl::SYS_POLICY, ~*bits);
    EXPECT_FALSE(kl::policies().is_allowed(request)) << command.name;
  }
}

TEST(DescriptionWords, ErrorsAndRightsHaveTheirNumbers) {
  EXPECT_EQ(findError("notallowed"), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(findError("timeout"), kl::ERROR_TIMEOUT);
  EXPECT_FALSE(findError("late").has_value());
  EXPECT_EQ(findRight("none"), 0u);
  EXPECT_EQ(findRight("contents"), kl::RIGHT_CONTENTS);
  EXPECT_FALSE(findRight("write").has_value());
}

}  // namespace describe
