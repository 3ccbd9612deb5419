#include "testkit/known_fields.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "kl/conventions.h"
#include "kl/test.h"

namespace kl::test {
namespace {

class KnownFieldsTest : public testing::Test {
 protected:
  static std::string attic() {
    std::ostringstream text;
    text << std::ifstream(KL_ATTIC_TOML).rdbuf();
    return text.str();
  }

  KnownFields fields_{attic(), "attic.toml"};
};

TEST_F(KnownFieldsTest, FieldsOfTheDescriptionAndOfTheConventionsAreKnown) {
  message m;
  m.insert_u32(0x08000001, 1);
  m.insert_string(0x20000002, "x");
  m.insert(STD_ID, 3);
  m.insert(SYS_CMD, CMD_GET);
  EXPECT_EQ(fields_.findStranger(m), "");
}

TEST_F(KnownFieldsTest, AnotherTypeIsNamed) {
  message m;
  m.insert_u32(0x08000002, 1);
  EXPECT_EQ(fields_.findStranger(m),
            "the field label as u32:2, and the description of attic has it as string:2");
}

TEST_F(KnownFieldsTest, AFieldThatIsNotThereIsNamed) {
  message m;
  m.insert_u32(0x08000009, 1);
  EXPECT_EQ(fields_.findStranger(m), "the field u32:9, which the description of attic does not know");
}

TEST_F(KnownFieldsTest, ObjectsAreLookedInto) {
  message object;
  object.insert_u32(0x08000009, 1);
  message m;
  m.insert(STD_OBJS, {object.flattened()});
  EXPECT_EQ(fields_.findStranger(m), "the field u32:9, which the description of attic does not know");
}

TEST_F(KnownFieldsTest, ADescriptionThatIsNoneIsAFailure) {
  EXPECT_THROW(KnownFields("fields = 3", "x"), Failure);
}

}  // namespace
}  // namespace kl::test
