#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "message/rep.h"

namespace {

using kl::message;
using Kind = kl::container::Kind;

class RepObjects : public testing::Test {
 protected:
  ~RepObjects() override {
    rep->check();
    message::Rep::destroy(rep);
  }

  std::string text(unsigned int id) { return *rep->objectRef<Kind::string>(id); }

  message::Rep* rep = message::Rep::make();
};

TEST_F(RepObjects, APutValueGoesIntoTheObjectThatSomebodyHolds) {
  rep->putObject<Kind::string>(0x20000001, "abc");
  std::string* const held = rep->objectRef<Kind::string>(0x20000001);
  rep->putObject<Kind::string>(0x20000001, "a longer one");
  EXPECT_EQ(*held, "a longer one");
  EXPECT_EQ(rep->objectRef<Kind::string>(0x20000001), held);
}

TEST_F(RepObjects, PutBytesGoIntoTheObjectThatSomebodyHolds) {
  auto* const held = rep->objectRef<Kind::u32Array>(0x88000001);
  const unsigned char values[] = {7, 0, 0, 0, 9, 0, 0, 0};
  rep->putBytes(Kind::u32Array, 0x88000001, values, sizeof values, 2);
  EXPECT_EQ(*held, (std::vector<unsigned int>{7, 9}));
}

TEST_F(RepObjects, TheObjectItselfMayBePut) {
  std::string* const held = rep->objectRef<Kind::string>(0x20000001);
  *held = "mine";
  rep->putObject<Kind::string>(0x20000001, *held);
  EXPECT_EQ(text(0x20000001), "mine");
}

TEST_F(RepObjects, AnObjectMayReplaceItselfUnderAnotherKind) {
  auto* const bytes = rep->objectRef<Kind::raw>(0x20000001);
  *bytes = {1, 2, 3};
  rep->putObject<Kind::raw>(0x20000001, *bytes);
  rep->putObject<Kind::string>(0x20000001, "text");
  std::string* const held = rep->objectRef<Kind::string>(0x20000001);
  EXPECT_EQ(*held, "text");
  EXPECT_EQ(rep->find(Kind::raw, 0x20000001), nullptr);
}

TEST_F(RepObjects, AReferenceToWhatIsMissingMakesItEmpty) {
  EXPECT_EQ(text(0x20000005), "");
  EXPECT_TRUE(rep->objectRef<Kind::messageArray>(0xa8000001)->empty());
  EXPECT_EQ(rep->maxLength(), 2u + 6 + 6);
}

}  // namespace
