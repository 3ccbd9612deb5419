// Records for the undo service, and the subscriptions that outlive the process.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kl/looper.h"
#include "tests/lib/looper/fixture.h"

namespace kl {
namespace {

using test::flat;
using test::requestTo;

// Keeps what it sends.
class Service : public Handler {
 public:
  void sendMessage(message& m) override { sent.push_back(m); }
  void notifiesSent() override { ++batches; }
  std::vector<message> sent;
  int batches = 0;
};

message userRequest(unsigned int command) {
  message m = requestTo({24, 0}, command);
  m.insert(SYS_USER, "ann");
  return m;
}

message undoing() {
  message m = test::to({24, 0});
  m.insert(SYS_FROM, {9});
  m.insert(STD_DESCR, "old");
  return m;
}

message withoutPaths(message m) {
  m.remove(SYS_TO);
  m.remove(SYS_FROM);
  return m;
}

TEST(Undo, ANewRecordHoldsRequestDescriptionUserRightsAndUndo) {
  Service service;
  service.sendUndoFrom(userRequest(CMD_SET), undoing(), "a change", 3);
  message expected = test::to({17});
  expected.insert(SYS_FROM, {3});
  expected.insert(SYS_CMD, CMD_ADDOBJ);
  expected.insert_message(0x28000001, withoutPaths(userRequest(CMD_SET)));
  expected.insert(field<std::string>(0x20000003), "a change");
  expected.insert(field<std::string>(0x20000006), "ann");
  expected.insert(field<unsigned int>(0x08000005), 128);
  expected.insert_message(0x28000002, withoutPaths(undoing()));
  EXPECT_EQ(service.sent, std::vector<message>{expected});
}

TEST(Undo, ARequestThatContinuesARecordSetsThatRecord) {
  Service service;
  message request = userRequest(CMD_SET);
  request.insert(STD_UNDOID, 9);
  service.sendUndo(request, undoing(), "a change");
  message expected = test::to({17});
  expected.insert(SYS_CMD, CMD_SETOBJ);
  expected.insert(STD_ID, 9);
  expected.insert(field<unsigned int>(0x08000005), 128);
  expected.insert_message(0x28000002, withoutPaths(undoing()));
  EXPECT_EQ(service.sent, std::vector<message>{expected});
}

TEST(Undo, WithoutSourceTheRecordHasNoSender) {
  Service service;
  service.sendUndo(userRequest(CMD_SET), undoing(), "");
  EXPECT_FALSE(service.sent.at(0).has(SYS_FROM));
}

TEST(Undo, TheCommandGoesIntoTheUndoMessage) {
  Service service;
  message undo = undoing();
  service.sendUndo(userRequest(CMD_SET), undo, "", CMD_RESET);
  EXPECT_EQ(undo.get(SYS_CMD, 0), CMD_RESET);
  message expected = withoutPaths(undoing());
  expected.insert(SYS_CMD, CMD_RESET);
  EXPECT_EQ(message(service.sent.at(0).get(field<message::flat_message>(0x28000002), {})), expected);
}

TEST(Undo, ARecordForACommandWithoutPolicyAllowsThatCommandToEveryone) {
  Service service;
  message request = userRequest(0x12345);
  request.insert(SYS_POLICY, 0);
  EXPECT_FALSE(service.accessPolicies().is_allowed(request));
  service.sendUndo(request, undoing(), "");
  EXPECT_EQ(service.sent.at(0).get(field<unsigned int>(0x08000005), 1), 0u);
  EXPECT_TRUE(service.accessPolicies().is_allowed(request));
}

TEST(PersistentSubscriptions, AHandlerWithoutSubscriptionsAddsNothingAndSendsNothing) {
  Service service;
  message data;
  service.savePermData(data);
  EXPECT_EQ(data, message());
  EXPECT_EQ(service.batches, 0);
}

TEST(PersistentSubscriptions, WhatIsGatheredIsSentBeforeTheyAreSaved) {
  class Gathering : public Service {
    message getObject(unsigned int id) override {
      message object;
      object.insert(STD_ID, id);
      return object;
    }
  };
  test::Connected net;
  Gathering table;
  std::vector<message> records;
  for (const unsigned int id : {10u, 9u}) {
    message& record = records.emplace_back();
    record.insert(SYS_FROM, {id});
    record.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
    table.cmdSubscribe(record);
  }
  table.notifyChange(3);
  message data;
  table.savePermData(data);
  ASSERT_EQ(table.sent.size(), 1u);
  EXPECT_EQ(table.sent[0].get(SYS_CMD, 0), CMD_NOTIFY);
  EXPECT_EQ(table.batches, 1);
  message expected;
  expected.insert(field<std::vector<message::flat_message>>(0xa8000001),
                  {flat(records[0]), flat(records[1])});
  EXPECT_EQ(data, expected);
}

TEST(PersistentSubscriptions, TheyComeBackInOrderBehindThoseThatAreThere) {
  std::vector<message> records;
  for (const unsigned int id : {9u, 10u})
    records.push_back([id] {
      message m;
      m.insert(SYS_FROM, {id});
      return m;
    }());
  message data;
  data.insert(field<std::vector<message::flat_message>>(0xa8000001), {flat(records[1])});
  Service service;
  service.cmdSubscribe(records[0]);
  service.loadPermData(data);
  EXPECT_EQ(service.getSubscriptions(), records);
}

}  // namespace
}  // namespace kl
