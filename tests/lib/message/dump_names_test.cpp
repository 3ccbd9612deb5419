#include "message/dump_names.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using kl::container::fieldName;
using kl::container::kNameBytes;
using kl::container::valueName;

TEST(DumpNames, EveryNamedFieldHasItsName) {
  const std::pair<unsigned int, const char*> names[] = {
      {0xFF0001, "SYS_TO"},       {0xFF0002, "SYS_FROM"},     {0xFF0003, "SYS_TYPE"},
      {0xFF0004, "SYS_STATUS"},   {0xFF0005, "SYS_REPLYEXP"}, {0xFF0006, "SYS_REQID"},
      {0xFF0007, "SYS_CMD"},      {0xFF0008, "SYS_ERRNO"},    {0xFF0009, "SYS_ERRSTR"},
      {0xFF000A, "SYS_USER"},     {0xFF000B, "SYS_POLICY"},   {0xFF000D, "SYS_CTRL"},
      {0xFF000E, "SYS_RADDR"},    {0xFF000F, "SYS_CTRL_ARG"}, {0xFE0001, "STD_ID"},
      {0xFE0002, "STD_OBJS"},     {0xFE0003, "STD_GETALLID"}, {0xFE0004, "STD_GETALLNO"},
      {0xFE0005, "STD_NEXTID"},   {0xFE0006, "STD_UNDOID"},   {0xFE0007, "STD_DYNAMIC"},
      {0xFE0008, "STD_INACTIVE"}, {0xFE0009, "STD_DESCR"},    {0xFE000A, "STD_DISABLED"},
      {0xFE000B, "STD_FINISHED"}, {0xFE0013, "STD_DEAD"},     {0xFF0010, "sys(16)"},
      {0xFE000C, "std(12)"},      {0xFDFFFF, "local(65535)"}, {0x000000, "global(0)"},
      {0x010001, "ns(1)"}};
  for (const auto& [number, name] : names) {
    char room[kNameBytes];
    EXPECT_STREQ(fieldName(number, room), name);
    EXPECT_STREQ(fieldName(0xA0000000 | number, room), name);
  }
}

std::string u32Value(unsigned int id, unsigned int value) {
  char room[kNameBytes];
  return valueName(id, value, room);
}

TEST(DumpValues, AreNumbersInThreeFormsWhereTheyHaveNoName) {
  EXPECT_EQ(u32Value(0x08000001, 0x0A000001), "167772161 0xa000001 10.0.0.1");
  EXPECT_EQ(u32Value(0x08000001, 0), "0 0x0 0.0.0.0");
  EXPECT_EQ(u32Value(0x08000001, 0xFFFFFFFF), "-1 0xffffffff 255.255.255.255");
  EXPECT_EQ(u32Value(0x08000001, 0x80000000), "-2147483648 0x80000000 128.0.0.0");
  EXPECT_EQ(u32Value(0x08FF0007, 5), "5 0x5 0.0.0.5");
}

TEST(DumpValues, OfSystemFieldsAreNamed) {
  const char* commands[] = {"CMD_NOOP",   "CMD_GETPOLICIES", "CMD_GETOBJ",    "CMD_SETOBJ",
                            "CMD_GETALL", "CMD_ADDOBJ",      "CMD_REMOVEOBJ", "CMD_MOVEOBJ"};
  for (unsigned int i = 0; i < std::size(commands); ++i)
    EXPECT_EQ(u32Value(0x08FF0007, 0xFE0000 + i), commands[i]);
  EXPECT_EQ(u32Value(0x08FF0007, 0xFE000B), "CMD_NOTIFY");
  EXPECT_EQ(u32Value(0x08FF0007, 0xFE000E), "CMD_SET");
  EXPECT_EQ(u32Value(0x08FF0007, 0xFE000F), "CMD_START");
  EXPECT_EQ(u32Value(0x08FF0007, 0xFE0010), "CMD_POLL");
  EXPECT_EQ(u32Value(0x08FF0007, 0xFE0011), "CMD_CANCEL");
  EXPECT_EQ(u32Value(0x08FF0007, 0xFE0016), "CMD_RESET");
  EXPECT_EQ(u32Value(0x08FF0003, 1), "TYPE_REQUEST");
  EXPECT_EQ(u32Value(0x08FF0003, 2), "TYPE_REPLY");
  EXPECT_EQ(u32Value(0x08FF0004, 1), "STATUS_OK");
  EXPECT_EQ(u32Value(0x08FF0004, 2), "STATUS_ERROR");
  EXPECT_EQ(u32Value(0x08FF0008, 0), "ERROR_OK");
  EXPECT_EQ(u32Value(0x08FF0008, 0xFE0009), "ERROR_NOTALLOWED");
  EXPECT_EQ(u32Value(0x08FF0008, 0xFE000D), "ERROR_TIMEOUT");
  EXPECT_EQ(u32Value(0x08FF0008, 0xFE0008), "16646152 0xfe0008 0.254.0.8");
}

TEST(DumpValues, FallThroughFromListToList) {
  EXPECT_EQ(u32Value(0x08FF0003, 0xFE0002), "CMD_GETOBJ");
  EXPECT_EQ(u32Value(0x08FF0004, 0xFE000C), "ERROR_BUSY");
  EXPECT_EQ(u32Value(0x08FF0007, 0xFE000C), "ERROR_BUSY");  // the shutdown command has no name here
  EXPECT_EQ(u32Value(0x08FF0003, 0), "ERROR_OK");
  EXPECT_EQ(u32Value(0x08FF0008, 1), "1 0x1 0.0.0.1");  // and never upwards
}

}  // namespace
