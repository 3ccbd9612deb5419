// The attacks on the loader, for a few seconds in all.  scripts/attack has them in full.

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/attack/scenarios.h"
#include "tests/support/build/effort.h"

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

// For attackers who are somebody else than the loader.
class AttackOfNobody : public testing::Test {
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  }

 protected:
  static constexpr Pace kPace{100, 400};
};

TEST_F(AttackOfNobody, FramesThatAnnounceMoreThanTheLibrarySendsCostTheirSendersTheConnection) {
  EXPECT_TRUE(keepsItsPromises(hugeFrames(kPace, 2, 16U << 20)));
}

TEST_F(AttackOfNobody, UnfinishedFramesAreKeptWithinTheMemoryOfTheLoader) {
  EXPECT_TRUE(keepsItsPromises(unfinishedFrames(kPace, 900)));
}

TEST_F(AttackOfNobody, RepliesThatNobodyReadsAreKeptWithinTheMemoryOfTheLoader) {
  EXPECT_TRUE(keepsItsPromises(unreadReplies(kPace, 64)));
}

TEST_F(AttackOfNobody, SubscriptionsAreKeptWithinTheMemoryOfTheLoader) {
  EXPECT_TRUE(keepsItsPromises(manySubscriptions(kPace, 200)));
}

TEST_F(AttackOfNobody, RegistrationsOfOneUserLeaveRoomForOthers) {
  EXPECT_TRUE(keepsItsPromises(manyRegistrations(kPace, 1017)));
}

TEST_F(AttackOfNobody, RegistrationsLeaveRoomForOthersWhereDescriptorsAreFew) {
  EXPECT_TRUE(keepsItsPromises(fewDescriptors(kPace, 300)));
}

TEST_F(AttackOfNobody, ManyEndsAtOnceCostTheOthersNoMessage) {
  // Sanitizers let them in too slowly.
  EXPECT_TRUE(keepsItsPromises(endsAtOnce(kPace, kl::test::kIsWeighed ? 2000 : 400)));
}

TEST_F(AttackOfNobody, ThoseWhoSayNothingKeepNobodyOut) {
  EXPECT_TRUE(keepsItsPromises(silentConnectors(kPace, 300)));
}

TEST_F(AttackOfNobody, ThoseWhoComeAndGoWithoutPauseKeepNobodyOut) {
  EXPECT_TRUE(keepsItsPromises(comingsAndGoings(kPace, 4)));
}

TEST_F(AttackOfNobody, IdsAreNotPickedAgainAndTheirCounterIsSavedInBlocks) {
  EXPECT_TRUE(keepsItsPromises(pickedIds(kPace, 4)));
}

TEST_F(AttackOfNobody, LinksInThePlaceOfMarkersLeadNowhere) { EXPECT_TRUE(keepsItsPromises(markerLinks(3))); }

TEST_F(AttackOfNobody, OneThatAsksWithoutPauseGetsAShareOfTheWork) {
  EXPECT_TRUE(keepsItsPromises(pipelinedTables(kPace, 1)));
}

TEST_F(AttackOfNobody, ManyThatAskWithoutPauseGetAShareOfTheWorkEach) {
  EXPECT_TRUE(keepsItsPromises(pipelinedTables(kPace, 24)));
}

TEST_F(AttackOfNobody, AMessageToThousandsOfPathsIsAsMuchWorkAsItHasCopies) {
  EXPECT_TRUE(keepsItsPromises(widePaths(kPace, 4)));
}

TEST_F(AttackOfNobody, AFullQueueHasRoomForTheRequestOfAnother) {
  EXPECT_TRUE(keepsItsPromises(fullQueue(1000)));
}

TEST_F(AttackOfNobody, AFloodOfLinesPushesNoneOfRootsOut) {
  EXPECT_TRUE(keepsItsPromises(logFlood(kPace, 10)));
}

}  // namespace attack
