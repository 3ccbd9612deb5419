// The attacks on the loader, for a few seconds in all.  scripts/attack has them in full.

#include <gtest/gtest.h>

#include "tests/attack/scenarios.h"

namespace attack {
namespace {

constexpr unsigned int kSeed = 4711;

testing::AssertionResult keepsItsPromises(const Report& report) {
  auto result = report.broken.empty() ? testing::AssertionSuccess() : testing::AssertionFailure();
  result << report.title;
  for (const auto& [name, value] : report.figures) result << "\n  " << name << ": " << value;
  for (const std::string& promise : report.broken) result << "\n  BROKEN: " << promise;
  return result;
}

}  // namespace

TEST(Attack, MalformedFramesCostTheirSendersTheConnectionAndNobodyElseAnything) {
  EXPECT_TRUE(keepsItsPromises(malformedFrames(1000, 1000, kSeed, 200)));
}

TEST(Attack, AStuckReaderIsDisconnectedAndTheOthersGetEverythingInOrder) {
  EXPECT_TRUE(keepsItsPromises(stuckReader(8, 800, 2000, 3)));
}

TEST(Attack, ALoaderWithoutDescriptorsGoesOnAndTakesNewPeersWhenItHasSomeAgain) {
  EXPECT_TRUE(keepsItsPromises(descriptorExhaustion(2)));
}

TEST(Attack, PeersThatComeAndGoLeaveNothingBehind) { EXPECT_TRUE(keepsItsPromises(connects(500))); }

TEST(Attack, NobodyCanSpeakInTheNameOfAnother) { EXPECT_TRUE(keepsItsPromises(forgeries(1000, kSeed))); }

TEST(Attack, EveryRequestToAKilledServiceEndsOnce) { EXPECT_TRUE(keepsItsPromises(kills(15, kSeed))); }

TEST(Attack, TheLoaderEndsInOrderInTheMidstOfEverything) { EXPECT_TRUE(keepsItsPromises(endings(5, kSeed))); }

}  // namespace attack
