// A process describes itself: the requests for HANDLER_DESCRIPTION.

#include "lib/looper/description.h"

#include <gtest/gtest.h>

#include "kl/description.h"
#include "tests/lib/looper/fixture.h"

namespace kl {
namespace {

using test::Connected;
using test::errorOf;
using test::Ids;
using test::Recorder;
using test::requestTo;
using test::to;

// A process with a description; the next one has none.
class Described : public testing::Test {
 protected:
  Described() { setDescription("fields = []\n"); }
  ~Described() override { setDescription(nullptr); }

  message answerTo(message m) {
    net_.looper->dispatchMessage(m);
    return net_.loader.receive();
  }

  Connected net_;
};

}  // namespace

TEST_F(Described, TheTextIsGivenOnRequest) {
  const message reply = answerTo(requestTo({HANDLER_DESCRIPTION}, CMD_GET));
  EXPECT_TRUE(isReply(reply));
  EXPECT_EQ(errorOf(reply), ERROR_OK);
  EXPECT_EQ(reply.get(STD_DESCR, ""), "fields = []\n");
  EXPECT_EQ(reply.get(SYS_TO, {}), Ids{9});
}

TEST_F(Described, OnlyWhoMayReadIsGivenIt) {
  message m = requestTo({HANDLER_DESCRIPTION}, CMD_GET);
  m.insert(SYS_POLICY, RIGHT_CHANGE);
  const message reply = answerTo(m);
  EXPECT_EQ(errorOf(reply), ERROR_NOTALLOWED);
  EXPECT_FALSE(reply.has(STD_DESCR));
}

TEST_F(Described, OtherCommandsAreThoseOfAHandlerThatHasNone) {
  EXPECT_EQ(errorOf(answerTo(requestTo({HANDLER_DESCRIPTION}, CMD_SET))), ERROR_NOTIMP);
  EXPECT_EQ(errorOf(answerTo(requestTo({HANDLER_DESCRIPTION}, CMD_SUBSCRIBE))), ERROR_NOTIMP);
  EXPECT_TRUE(net_.looper->getSubscriptions().empty());
  const message nothing = answerTo(requestTo({HANDLER_DESCRIPTION}, CMD_NOOP));
  EXPECT_EQ(errorOf(nothing), ERROR_OK);
  EXPECT_FALSE(nothing.has(STD_DESCR));
  EXPECT_FALSE(answerTo(requestTo({HANDLER_DESCRIPTION}, CMD_GETPOLICIES)).get(STD_OBJS, {}).empty());
}

TEST_F(Described, APathThatGoesOnLeadsNowhere) {
  EXPECT_EQ(errorOf(answerTo(requestTo({HANDLER_DESCRIPTION, 1}, CMD_GET))), ERROR_BRKPATH);
}

TEST_F(Described, AHandlerOfTheProcesssOwnAnswersInstead) {
  Recorder own;
  EXPECT_TRUE(net_.looper->addHandler(HANDLER_DESCRIPTION, &own));
  message m = requestTo({HANDLER_DESCRIPTION}, CMD_GET);
  net_.looper->dispatchMessage(m);
  EXPECT_EQ(own.seen.size(), 1u);
  EXPECT_TRUE(net_.loader.isSilent());
  EXPECT_TRUE(net_.looper->removeHandler(HANDLER_DESCRIPTION));
  EXPECT_TRUE(answerTo(requestTo({HANDLER_DESCRIPTION}, CMD_GET)).has(STD_DESCR));
}

TEST_F(Described, WithoutOneThereIsNoSuchHandler) {
  setDescription(nullptr);
  EXPECT_EQ(errorOf(answerTo(requestTo({HANDLER_DESCRIPTION}, CMD_GET))), ERROR_BRKPATH);
}

// It would answer to a reply of another one, for ever.
TEST_F(Described, AReplyIsNoRequest) {
  message reply = requestTo({HANDLER_DESCRIPTION}, CMD_GET);
  setType(reply, TYPE_REPLY);
  EXPECT_FALSE(asksForDescription(reply));
  EXPECT_FALSE(asksForDescription(to({HANDLER_DESCRIPTION})));
}

TEST_F(Described, ATextThatIsTooLongIsNotGiven) {
  const std::string most(kMostDescriptionBytes, 'x');
  const std::string tooLong = most + "x";
  EXPECT_TRUE(setDescription(most.c_str()));
  EXPECT_EQ(answerTo(requestTo({HANDLER_DESCRIPTION}, CMD_GET)).get(STD_DESCR, ""), most);
  EXPECT_FALSE(setDescription(tooLong.c_str()));
  EXPECT_EQ(errorOf(answerTo(requestTo({HANDLER_DESCRIPTION}, CMD_GET))), ERROR_BRKPATH);
}

}  // namespace kl
