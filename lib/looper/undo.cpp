// Records for the undo service: a request that changed something, and the message that undoes it.
//
//     SYS_TO       [17]
//     SYS_FROM     [source], where one is given
//     SYS_CMD      CMD_ADDOBJ for a new record, CMD_SETOBJ where the request continues one
//     STD_ID       the record that is continued
//     UNDO_REQUEST       } of a new record
//     UNDO_DESCRIPTION   }
//     UNDO_USER          }
//     UNDO_RIGHTS   the rights that the request's command needs
//     UNDO_MESSAGE  the message that undoes it
//
// The messages inside travel without their paths.

#include <string>

#include "kl/looper.h"
#include "kl/services.h"

namespace kl {
namespace {

message withoutPaths(const message& m) {
  message result(m);
  result.remove(SYS_FROM);
  result.remove(SYS_TO);
  return result;
}

void describeRequest(message& record, const message& request, const std::string& description) {
  record.insert(SYS_CMD, CMD_ADDOBJ);
  record.insert_message(UNDO_REQUEST, withoutPaths(request));
  record.insert(UNDO_DESCRIPTION, description);
  record.insert(UNDO_USER, request.get(SYS_USER, ""));
}

}  // namespace

// Kept on purpose: asking the table for the rights of a command that it does not name makes an entry of 0, so
// from then on that command is allowed to everyone.
// Held by Undo.ARecordForACommandWithoutPolicyAllowsThatCommandToEveryone.
void Handler::sendUndoFrom(const message& request, const message& undo, const std::string& description,
                           unsigned int source) {
  message record;
  if (source != BADID) record.insert(SYS_FROM, {source});
  record.insert(SYS_TO, {SERVICE_UNDO});
  if (const unsigned int* continued = request.get_u32_ref(STD_UNDOID)) {
    record.insert(SYS_CMD, CMD_SETOBJ);
    record.insert(STD_ID, *continued);
  } else {
    describeRequest(record, request, description);
  }
  record.insert(UNDO_RIGHTS, policies_[request.get(SYS_CMD, CMD_NOOP)]);
  record.insert_message(UNDO_MESSAGE, withoutPaths(undo));
  sendMessage(record);
}

void Handler::sendUndo(const message& request, const message& undo, const std::string& description) {
  sendUndoFrom(request, undo, description, BADID);
}

void Handler::sendUndo(const message& request, message& undo, const std::string& description,
                       unsigned int command) {
  undo.insert(SYS_CMD, command);
  sendUndo(request, undo, description);
}

}  // namespace kl
