// The rights that each command needs.

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "kl/looper.h"
#include "tests/support/hex.h"

namespace kl {
namespace {

message command(unsigned int code) {
  message m;
  m.insert(SYS_CMD, code);
  return m;
}

message command(unsigned int code, unsigned int rights) {
  message m = command(code);
  m.insert(SYS_POLICY, rights);
  return m;
}

// The table as get_policies tells it.
std::map<unsigned int, unsigned int> tableOf(const policies& p) {
  std::map<unsigned int, unsigned int> table;
  for (const auto& entry : p.get_policies(message()).get(STD_OBJS, {})) {
    const message m(entry);
    table[m.get(STD_ID, 0)] = m.get_u32(0x08000001, 0);
  }
  return table;
}

TEST(Policies, TheDefaultTableNamesNineteenCommands) {
  const std::map<unsigned int, unsigned int> expected{
      {CMD_GETPOLICIES, 64}, {CMD_NOOP, 64},         {CMD_GETOBJ, 64},     {CMD_GETALL, 64},
      {CMD_ADDOBJ, 128},     {CMD_SETOBJ, 128},      {CMD_REMOVEOBJ, 128}, {CMD_MOVEOBJ, 128},
      {0xfe0008, 128},       {CMD_NOTIFY, 1u << 31}, {CMD_SUBSCRIBE, 64},  {CMD_UNSUBSCRIBE, 64},
      {CMD_GET, 64},         {CMD_SET, 128},         {CMD_RESET, 128},     {CMD_POLL, 512},
      {CMD_START, 512},      {CMD_CANCEL, 512},      {CMD_GETCOUNT, 64}};
  EXPECT_EQ(tableOf(policies()), expected);
}

TEST(Policies, ARequestWithoutPolicyIsAllowedEveryCommand) {
  const policies p;
  for (const unsigned int code : {CMD_GET, CMD_SET, CMD_NOTIFY, CMD_SHUTDOWN, CMD_DISCONNECTED, 0x12345u})
    EXPECT_TRUE(p.is_allowed(command(code))) << code;
}

TEST(Policies, ReadersMayReadAndNotChange) {
  const policies p;
  EXPECT_TRUE(p.is_allowed(command(CMD_GET, 64)));
  EXPECT_FALSE(p.is_allowed(command(CMD_SET, 64)));
  EXPECT_FALSE(p.is_allowed(command(CMD_START, 64)));
  EXPECT_FALSE(p.is_allowed(command(CMD_SHUTDOWN, 64)));
  EXPECT_FALSE(p.is_allowed(command(0x12345, 64)));
}

TEST(Policies, AnUnknownCommandNeedsTheHighestBit) {
  const policies p;
  EXPECT_FALSE(p.is_allowed(command(0x12345, 0x7fffffff)));
  EXPECT_TRUE(p.is_allowed(command(0x12345, 0x80000000)));
}

TEST(Policies, EveryNeededBitMustBeThere) {
  policies p;
  p.set_policy(CMD_GET, 3);
  EXPECT_FALSE(p.is_allowed(command(CMD_GET, 1)));
  EXPECT_FALSE(p.is_allowed(command(CMD_GET, 2)));
  EXPECT_TRUE(p.is_allowed(command(CMD_GET, 3)));
  EXPECT_TRUE(p.is_allowed(command(CMD_GET, 7)));
}

TEST(Policies, AMessageWithoutCommandCountsAsNoop) {
  policies p;
  message m;
  m.insert(SYS_POLICY, 64);
  EXPECT_TRUE(p.is_allowed(m));
  p.set_policy(CMD_NOOP, 128);
  EXPECT_FALSE(p.is_allowed(m));
}

TEST(Policies, AddPolicyWithoutEntryLeavesJustTheAddedBits) {
  policies p;
  p.add_policy(CMD_SHUTDOWN, 16);
  EXPECT_TRUE(p.is_allowed(command(CMD_SHUTDOWN, 16)));
  p.add_policy(CMD_SHUTDOWN, 32);
  EXPECT_FALSE(p.is_allowed(command(CMD_SHUTDOWN, 16)));
  EXPECT_TRUE(p.is_allowed(command(CMD_SHUTDOWN, 48)));
}

TEST(Policies, APolicyOfZeroAllowsTheCommandToEveryone) {
  policies p;
  p.set_policy(CMD_SET, 0);
  EXPECT_TRUE(p.is_allowed(command(CMD_SET, 0)));
}

TEST(Policies, AskingWhetherMakesNoEntry) {
  const policies p;
  (void)p.is_allowed(command(0x12345, 0));
  EXPECT_EQ(tableOf(p), tableOf(policies()));
}

TEST(Policies, TheIndexOperatorMakesAnEntryOfZero) {
  policies p;
  EXPECT_EQ(p[CMD_GET], 64u);
  EXPECT_EQ(p[0x12345], 0u);
  EXPECT_TRUE(p.is_allowed(command(0x12345, 0)));
}

TEST(Policies, GetPoliciesTellsTheTableInAscendingOrderAndWhatTheAskerHas) {
  policies p;
  p.set_policy(0x10, 1);
  const auto entries = p.get_policies(command(CMD_GETPOLICIES, 64)).get(STD_OBJS, {});
  ASSERT_EQ(entries.size(), 20u);
  //                               bool 2 = false | STD_ID 0x10     | global 1 = 1
  EXPECT_EQ(message(entries[0]), message(test::bytes("4d32 02000000 0100fe0910 0100000901")));
  //                               bool 2 = true  | STD_ID CMD_NOOP | global 1 = 64
  EXPECT_EQ(message(entries[1]), message(test::bytes("4d32 02000001 0100fe08 0000fe00 0100000940")));
  unsigned int last = 0;
  for (const auto& entry : entries) {
    const unsigned int id = message(entry).get(STD_ID, 0);
    EXPECT_GT(id, last);
    last = id;
  }
}

TEST(Policies, AreAValue) {
  policies a;
  policies b = a;
  b.set_policy(CMD_SET, 64);
  EXPECT_FALSE(a == b);
  a = b;
  EXPECT_TRUE(a == b);
}

}  // namespace
}  // namespace kl
