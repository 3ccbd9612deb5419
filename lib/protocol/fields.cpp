// The system and standard fields of a message: its kind, its request id, and how it is stripped to its content.
//
// A message without a field means the field's default, so no function here inserts a default.

#include <vector>

#include "kl/conventions.h"

namespace kl {
namespace {

bool findNumber(const message& msg, unsigned int id, unsigned int* value) {
  const unsigned int* found = msg.get_u32_ref(id);
  if (!found) return false;
  if (value) *value = *found;
  return true;
}

}  // namespace

bool isRequest(const message& msg) { return getType(msg) == TYPE_REQUEST; }

bool isReply(const message& msg) { return getType(msg) == TYPE_REPLY; }

bool isReplyExpected(const message& msg) { return msg.get(SYS_REPLYEXP, false); }

bool isCtrl(const message& msg, unsigned int* code) { return findNumber(msg, SYS_CTRL, code); }

bool getRequestID(const message& msg, unsigned int* id) { return findNumber(msg, SYS_REQID, id); }

void setRequestID(message& msg, unsigned int id) {
  msg.remove(SYS_REQID);
  msg.insert(SYS_REQID, id);
}

void setType(message& msg, unsigned int type) {
  msg.remove(SYS_TYPE);
  msg.insert(SYS_TYPE, type);
}

unsigned int getType(const message& msg) { return msg.get(SYS_TYPE, TYPE_REQUEST); }

// Kept on purpose: SYS_ERRSTR, SYS_RADDR, SYS_CTRL_ARG, SYS_NOTIFYCMD and SYS_NOTIFYPATH stay; a
// subscription record is a request that went through here, and needs SYS_NOTIFYCMD.
// Held by Fields.CleanSysKeepsErrorTextAndNotificationFields.
void cleanSys(message& msg) {
  msg.remove(SYS_TO);
  msg.remove(SYS_FROM);
  msg.remove(SYS_TYPE);
  msg.remove(SYS_STATUS);
  msg.remove(SYS_REPLYEXP);
  msg.remove(SYS_REQID);
  msg.remove(SYS_CMD);
  msg.remove(SYS_ERRNO);
  msg.remove(SYS_USER);
  msg.remove(SYS_POLICY);
  msg.remove(SYS_CTRL);
}

// Kept on purpose: STD_FINISHED and STD_DEAD stay.  Held by Fields.CleanStdKeepsFinishedAndDead.
void cleanStd(message& msg) {
  msg.remove(STD_ID);
  msg.remove(STD_OBJS);
  msg.remove(STD_GETALLID);
  msg.remove(STD_GETALLNO);
  msg.remove(STD_NEXTID);
  msg.remove(STD_UNDOID);
  msg.remove(STD_DYNAMIC);
  msg.remove(STD_INACTIVE);
  msg.remove(STD_DESCR);
  msg.remove(STD_DISABLED);
}

}  // namespace kl
