// The system and standard fields of a message.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kl/conventions.h"

namespace kl {
namespace {

template <class T>
message with(field<T> id, const std::type_identity_t<T>& value) {
  message m;
  m.insert(id, value);
  return m;
}

TEST(Fields, TheIdsAreThoseOfTheProtocol) {
  EXPECT_EQ(SYS_TO, 0x88ff0001u);
  EXPECT_EQ(SYS_FROM, 0x88ff0002u);
  EXPECT_EQ(SYS_TYPE, 0x08ff0003u);
  EXPECT_EQ(SYS_STATUS, 0x08ff0004u);
  EXPECT_EQ(SYS_REPLYEXP, 0x00ff0005u);
  EXPECT_EQ(SYS_REQID, 0x08ff0006u);
  EXPECT_EQ(SYS_CMD, 0x08ff0007u);
  EXPECT_EQ(SYS_ERRNO, 0x08ff0008u);
  EXPECT_EQ(SYS_ERRSTR, 0x20ff0009u);
  EXPECT_EQ(SYS_USER, 0x20ff000au);
  EXPECT_EQ(SYS_POLICY, 0x08ff000bu);
  EXPECT_EQ(SYS_CTRL, 0x08ff000du);
  EXPECT_EQ(SYS_RADDR, 0x00ff000eu);
  EXPECT_EQ(SYS_CTRL_ARG, 0x08ff000fu);
  EXPECT_EQ(SYS_NOTIFYCMD, 0x08ff0011u);
  EXPECT_EQ(SYS_NOTIFYPATH, 0x88ff0012u);
  EXPECT_EQ(STD_ID, 0x08fe0001u);
  EXPECT_EQ(STD_OBJS, 0xa8fe0002u);
  EXPECT_EQ(STD_GETALLID, 0x08fe0003u);
  EXPECT_EQ(STD_GETALLNO, 0x08fe0004u);
  EXPECT_EQ(STD_NEXTID, 0x08fe0005u);
  EXPECT_EQ(STD_UNDOID, 0x08fe0006u);
  EXPECT_EQ(STD_DYNAMIC, 0x00fe0007u);
  EXPECT_EQ(STD_INACTIVE, 0x00fe0008u);
  EXPECT_EQ(STD_DESCR, 0x20fe0009u);
  EXPECT_EQ(STD_DISABLED, 0x00fe000au);
  EXPECT_EQ(STD_FINISHED, 0x00fe000bu);
  EXPECT_EQ(STD_DEAD, 0x08fe0013u);
}

TEST(Fields, TheCodesAreThoseOfTheProtocol) {
  EXPECT_EQ(TYPE_REQUEST, 1u);
  EXPECT_EQ(TYPE_REPLY, 2u);
  EXPECT_EQ(STATUS_OK, 1u);
  EXPECT_EQ(STATUS_ERROR, 2u);
  EXPECT_EQ(CMD_NOOP, 0xfe0000u);
  EXPECT_EQ(CMD_GETPOLICIES, 0xfe0001u);
  EXPECT_EQ(CMD_GETOBJ, 0xfe0002u);
  EXPECT_EQ(CMD_SETOBJ, 0xfe0003u);
  EXPECT_EQ(CMD_GETALL, 0xfe0004u);
  EXPECT_EQ(CMD_ADDOBJ, 0xfe0005u);
  EXPECT_EQ(CMD_REMOVEOBJ, 0xfe0006u);
  EXPECT_EQ(CMD_MOVEOBJ, 0xfe0007u);
  EXPECT_EQ(CMD_NOTIFY, 0xfe000bu);
  EXPECT_EQ(CMD_SHUTDOWN, 0xfe000cu);
  EXPECT_EQ(CMD_GET, 0xfe000du);
  EXPECT_EQ(CMD_SET, 0xfe000eu);
  EXPECT_EQ(CMD_START, 0xfe000fu);
  EXPECT_EQ(CMD_POLL, 0xfe0010u);
  EXPECT_EQ(CMD_CANCEL, 0xfe0011u);
  EXPECT_EQ(CMD_SUBSCRIBE, 0xfe0012u);
  EXPECT_EQ(CMD_UNSUBSCRIBE, 0xfe0013u);
  EXPECT_EQ(CMD_DISCONNECTED, 0xfe0014u);
  EXPECT_EQ(CMD_GETCOUNT, 0xfe0015u);
  EXPECT_EQ(CMD_RESET, 0xfe0016u);
  EXPECT_EQ(PATH_ALL, 0xff0001u);
  EXPECT_EQ(PATH_MULTI, 0xff0002u);
  EXPECT_EQ(PATH_SELF, 0xff0003u);
  EXPECT_EQ(BADID, 0xffffffffu);
}

TEST(Fields, AMessageWithoutTypeIsARequest) {
  const message m;
  EXPECT_EQ(getType(m), TYPE_REQUEST);
  EXPECT_TRUE(isRequest(m));
  EXPECT_FALSE(isReply(m));
}

TEST(Fields, AMessageOfForeignTypeIsNeitherRequestNorReply) {
  const message m = with(SYS_TYPE, 5);
  EXPECT_EQ(getType(m), 5u);
  EXPECT_FALSE(isRequest(m));
  EXPECT_FALSE(isReply(m));
}

TEST(Fields, AReplyIsNoRequest) {
  const message m = with(SYS_TYPE, TYPE_REPLY);
  EXPECT_TRUE(isReply(m));
  EXPECT_FALSE(isRequest(m));
}

TEST(Fields, SetTypeLeavesOneValueTheNewOne) {
  message m = with(SYS_TYPE, TYPE_REQUEST);
  setType(m, TYPE_REPLY);
  EXPECT_EQ(m, with(SYS_TYPE, TYPE_REPLY));
}

TEST(Fields, AReplyIsExpectedOnlyWhereTheMessageSaysSo) {
  EXPECT_FALSE(isReplyExpected(message()));
  EXPECT_FALSE(isReplyExpected(with(SYS_REPLYEXP, false)));
  EXPECT_TRUE(isReplyExpected(with(SYS_REPLYEXP, true)));
}

TEST(Fields, IsCtrlGivesTheCodeThroughThePointer) {
  unsigned int code = 99;
  EXPECT_FALSE(isCtrl(message(), &code));
  EXPECT_EQ(code, 99u);
  EXPECT_TRUE(isCtrl(with(SYS_CTRL, 8), &code));
  EXPECT_EQ(code, 8u);
  EXPECT_TRUE(isCtrl(with(SYS_CTRL, 0), nullptr));
}

TEST(Fields, GetRequestIDGivesTheIdThroughThePointer) {
  unsigned int id = 99;
  EXPECT_FALSE(getRequestID(message(), &id));
  EXPECT_EQ(id, 99u);
  EXPECT_TRUE(getRequestID(with(SYS_REQID, 0), &id));
  EXPECT_EQ(id, 0u);
  EXPECT_TRUE(getRequestID(with(SYS_REQID, 7), nullptr));
}

TEST(Fields, SetRequestIDLeavesOneValueTheNewOne) {
  message m = with(SYS_REQID, 7);
  setRequestID(m, 8);
  EXPECT_EQ(m, with(SYS_REQID, 8));
}

message withAllSystemFields() {
  message m;
  m.insert(SYS_TO, {1});
  m.insert(SYS_FROM, {2});
  m.insert(SYS_TYPE, 1);
  m.insert(SYS_STATUS, 1);
  m.insert(SYS_REPLYEXP, true);
  m.insert(SYS_REQID, 3);
  m.insert(SYS_CMD, 4);
  m.insert(SYS_ERRNO, 5);
  m.insert(SYS_ERRSTR, "text");
  m.insert(SYS_USER, "user");
  m.insert(SYS_POLICY, 6);
  m.insert(SYS_CTRL, 7);
  m.insert_bool(SYS_RADDR, true);
  m.insert(SYS_CTRL_ARG, 8);
  m.insert(SYS_NOTIFYCMD, 9);
  m.insert(SYS_NOTIFYPATH, {10});
  return m;
}

TEST(Fields, CleanSysKeepsErrorTextAndNotificationFields) {
  message m = withAllSystemFields();
  m.insert(STD_ID, 11);
  cleanSys(m);

  message expected;
  expected.insert(SYS_ERRSTR, "text");
  expected.insert_bool(SYS_RADDR, true);
  expected.insert(SYS_CTRL_ARG, 8);
  expected.insert(SYS_NOTIFYCMD, 9);
  expected.insert(SYS_NOTIFYPATH, {10});
  expected.insert(STD_ID, 11);
  EXPECT_EQ(m, expected);
}

TEST(Fields, CleanStdKeepsFinishedAndDead) {
  message m;
  m.insert(STD_ID, 1);
  m.insert(STD_OBJS, {});
  m.insert(STD_GETALLID, 2);
  m.insert(STD_GETALLNO, 3);
  m.insert(STD_NEXTID, 4);
  m.insert(STD_UNDOID, 5);
  m.insert(STD_DYNAMIC, true);
  m.insert(STD_INACTIVE, true);
  m.insert(STD_DESCR, "text");
  m.insert(STD_DISABLED, true);
  message kept;
  kept.insert_bool(STD_FINISHED, true);
  kept.insert(STD_DEAD, 1);
  kept.insert_u32(0x08fe000c, 6);
  kept.insert(SYS_CMD, CMD_GET);
  m.merge(kept);
  cleanStd(m);
  EXPECT_EQ(m, kept);
}

TEST(Fields, CleaningAnEmptyMessageLeavesItEmpty) {
  message m;
  cleanSys(m);
  cleanStd(m);
  EXPECT_EQ(m, message());
}

TEST(Fields, TypedConstantsServeThePlainOperationsToo) {
  message m;
  m.insert(SYS_TO, {24, 0});
  m.insert_u32(SYS_CMD, CMD_GET);
  EXPECT_EQ(m.get_u32(SYS_CMD, 0), CMD_GET);
  EXPECT_EQ(m.get_u32_array(SYS_TO), (std::vector<unsigned int>{24, 0}));
}

}  // namespace
}  // namespace kl
