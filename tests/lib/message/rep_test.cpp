#include "message/rep.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/lib/message/allocation_count.h"

namespace {

using kl::message;
using kl::RepAccess;
using Kind = kl::container::Kind;

class RepTest : public testing::Test {
 protected:
  ~RepTest() override { message::Rep::destroy(rep); }
  message::Rep* rep = message::Rep::make();
};

TEST_F(RepTest, TheOneThatAllEmptyMessagesReadIsNeverChanged) {
  EXPECT_EQ(&RepAccess::read(message()), &RepAccess::nilRep);
  EXPECT_EQ(RepAccess::nilRep.maxLength(), 2u);
  EXPECT_EQ(RepAccess::nilRep.u32s.capacity(), 11u);
  EXPECT_EQ(RepAccess::nilRep.u32s.get(7), nullptr);
}

TEST_F(RepTest, BeginsWithinOneBlockWithRoomForAnOrdinaryMessage) {
  const std::string text(24, 'x');
  const kl::test::AllocationCount before;
  for (unsigned int i = 0; i < 12; ++i) rep->u32Ref(0x08000000 + i) = i;
  for (unsigned int i = 0; i < 4; ++i) rep->boolRef(i) = true;
  for (unsigned int i = 0; i < 9; ++i) rep->putObject<Kind::string>(0x20000000 + i, text);
  EXPECT_EQ(before.since(), 0u);
  rep->check();
}

TEST_F(RepTest, LengthsRunAlongUntilAReferenceIsHandedOut) {
  rep->putObject<Kind::string>(0x20000001, "abc");
  EXPECT_FALSE(rep->lengthsOpen);
  EXPECT_EQ(rep->maxLength(), 2u + 9);
  rep->objectRef<Kind::string>(0x20000001)->assign(100, 'x');
  EXPECT_TRUE(rep->lengthsOpen);
  EXPECT_EQ(rep->maxLength(), 2u + 106);
  message::Rep* copy = message::Rep::copyOf(*rep);
  EXPECT_FALSE(copy->lengthsOpen);
  EXPECT_EQ(copy->maxLength(), 2u + 106);
  message::Rep::destroy(copy);
}

TEST_F(RepTest, AnObjectThatIsOnlyReadKeepsTheLengthsRunning) {
  rep->putObject<Kind::string>(0x20000001, "abc");
  rep->hasObjects = true;
  kl::container::objectOf<Kind::string>(*rep->find(Kind::string, 0x20000001));
  rep->putObject<Kind::string>(0x20000001, "abcdef");
  EXPECT_EQ(rep->maxLength(), 2u + 12);
  rep->check();
  rep->remove(rep->fields, 0x20000001);
  EXPECT_EQ(rep->maxLength(), 2u);
}

}  // namespace
