#include "examples/memory.h"

#include <gtest/gtest.h>

namespace {

kl::message saved(Memory& memory) {
  kl::message data;
  memory.savePermData(data);
  std::vector<unsigned char> bytes;
  data.flatten(bytes);
  return {bytes.data(), static_cast<unsigned int>(bytes.size())};
}

std::string nameOf(unsigned int i) { return "eth" + std::to_string(i); }

// Fills the room with descriptions of 255 bytes and returns how many there are.
unsigned int fill(Memory& memory) {
  unsigned int count = 0;
  while (memory.describe(nameOf(count), std::string(255, 'x'))) ++count;
  return count;
}

}  // namespace

TEST(Memory, DescribesAnInterfaceUntilItsDescriptionIsEmpty) {
  Memory memory;
  EXPECT_EQ(memory.description("eth0"), "");
  EXPECT_TRUE(memory.describe("eth0", "to the office"));
  EXPECT_EQ(memory.description("eth0"), "to the office");
  EXPECT_TRUE(memory.describe("eth0", ""));
  EXPECT_EQ(memory.description("eth0"), "");
}

TEST(Memory, WhatIsSavedIsThereAgain) {
  Memory memory;
  EXPECT_TRUE(memory.describe("eth0", "to the office"));
  EXPECT_TRUE(memory.describe("lo", "to itself"));
  memory.setKnown({1, 7});
  Memory next;
  next.loadPermData(saved(memory));
  EXPECT_EQ(next.description("eth0"), "to the office");
  EXPECT_EQ(next.description("lo"), "to itself");
  EXPECT_EQ(next.known(), (std::vector<unsigned int>{1, 7}));
}

TEST(Memory, WithNothingToKeepNothingIsSaved) {
  Memory memory;
  EXPECT_TRUE(memory.describe("eth0", "x"));
  EXPECT_TRUE(memory.describe("eth0", ""));
  kl::message data;
  memory.savePermData(data);
  EXPECT_EQ(data, kl::message());
}

TEST(Memory, DataOfWhichAPartIsMissingGiveTheRest) {
  constexpr kl::field<std::vector<std::string>> names{0xa0000002};  // clang 14 fails at one made in a call
  constexpr kl::field<std::vector<std::string>> descriptions{0xa0000003};
  Memory memory;
  kl::message data;
  data.insert(names, {"eth0", "eth1"});
  memory.loadPermData(data);
  EXPECT_EQ(memory.description("eth0"), "");
  data.insert(descriptions, {"to the office"});
  memory.loadPermData(data);
  EXPECT_EQ(memory.description("eth0"), "to the office");
  EXPECT_EQ(memory.description("eth1"), "");
}

TEST(Memory, WhenItIsFullItFitsIntoOneFrameWithRoomForTheRest) {
  Memory memory;
  EXPECT_GT(fill(memory), 100u);
  std::vector<unsigned char> bytes;
  saved(memory).flatten(bytes);
  EXPECT_LT(bytes.size(), 40000u);
}

TEST(Memory, WhenItIsFullADescriptionMayStillBecomeShorter) {
  Memory memory;
  fill(memory);
  EXPECT_FALSE(memory.describe("more", std::string(255, 'y')));
  EXPECT_EQ(memory.description("more"), "");
  EXPECT_TRUE(memory.describe(nameOf(0), "short"));
  EXPECT_EQ(memory.description(nameOf(0)), "short");
  EXPECT_TRUE(memory.describe(nameOf(1), ""));
  EXPECT_TRUE(memory.describe("more", std::string(255, 'y')));
}

TEST(Memory, ForgetsTheDescriptionsOfAllButThese) {
  Memory memory;
  EXPECT_TRUE(memory.describe("eth0", "a"));
  EXPECT_TRUE(memory.describe("eth1", "b"));
  memory.forgetAllBut({"eth1", "eth2"});
  EXPECT_EQ(memory.description("eth0"), "");
  EXPECT_EQ(memory.description("eth1"), "b");
}
