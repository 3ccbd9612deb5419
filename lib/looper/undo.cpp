// Records for the undo service: who changed what, and what takes it back.
//
//     SYS_TO       [17]
//     SYS_FROM     [source], where one is given
//     SYS_CMD      CMD_ADDOBJ for a new record, CMD_SETOBJ where the request continues one
//     STD_ID       the record that is continued
//     0x28000001   the request     } of a new record
//     0x20000003   the description }
//     0x20000006   the user        }
//     0x08000005   the rights that the request's command needs
//     0x28000002   the message that undoes it
//
// The messages inside travel without their paths.

#include <string>

#include "kl/looper.h"

namespace kl {
namespace {

constexpr field<message::flat_message> kRequest{0x28000001};
constexpr field<message::flat_message> kUndo{0x28000002};
constexpr field<std::string> kDescription{0x20000003};
constexpr field<unsigned int> kRights{0x08000005};
constexpr field<std::string> kUser{0x20000006};

message withoutPaths(const message& m) {
  message result(m);
  result.remove(SYS_FROM);
  result.remove(SYS_TO);
  return result;
}

void describeRequest(message& record, const message& request, const std::string& description) {
  record.insert(SYS_CMD, CMD_ADDOBJ);
  record.insert_message(kRequest, withoutPaths(request));
  record.insert(kDescription, description);
  record.insert(kUser, request.get(SYS_USER, ""));
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
  record.insert(kRights, policies_[request.get(SYS_CMD, CMD_NOOP)]);
  record.insert_message(kUndo, withoutPaths(undo));
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
