// A report is copied field by field into its record, and from the record into the message that undoes it: nothing
// that a service put beside these fields travels further.

#include "reports.h"

#include "kl/conventions.h"
#include "kl/message_view.h"
#include "kl/rights.h"
#include "kl/services.h"
#include "undo.kl.h"

namespace undo {
namespace {

bool isWhole(const kl::message::flat_message& bytes) {
  kl::message m;
  return m.unflatten(bytes.data(), static_cast<unsigned int>(bytes.size()), kl::message::normal);
}

template <class T>
void copyField(kl::message& to, const kl::message& from, kl::field<T> field) {
  if (from.has(field)) to.insert(field, from.get(field, {}));
}

}  // namespace

kl::message faultOf(const kl::message& report) {
  if (!report.has(undo_service::UNDO)) return kl::errorMsg(kl::ERROR_MISSING, "");
  if (!isWhole(report.get(undo_service::UNDO, {})))
    return kl::errorMsg(kl::ERROR_FAILED, "the undo message is damaged");
  return {};
}

kl::message recordFrom(const kl::message& report, unsigned long long time) {
  kl::message record;
  copyField(record, report, undo_service::REQUEST);
  copyField(record, report, undo_service::UNDO);
  copyField(record, report, undo_service::DESCRIPTION);
  copyField(record, report, undo_service::USER);
  if (report.has(kl::SYS_USER)) record.insert(undo_service::REPORTER, report.get(kl::SYS_USER, ""));
  // A report without the rights that the request needed can be undone only by a user who may do everything.
  record.insert(undo_service::RIGHTS, report.get(undo_service::RIGHTS, kl::RIGHT_OF_NOBODY));
  record.insert(undo_service::TIME, time);
  record.insert(undo_service::SOURCE, report.get(kl::SYS_FROM, {}));
  return record;
}

kl::message turnedRound(const kl::message& record, const kl::message& report) {
  kl::message turned(record);
  copyField(turned, report, undo_service::UNDO);
  copyField(turned, report, undo_service::RIGHTS);
  turned.insert(undo_service::UNDONE, !record.get(undo_service::UNDONE, false));
  return turned;
}

kl::message rightsQuestion(const kl::message& record, const kl::message& request) {
  const kl::message undo(record.get(undo_service::UNDO, {}));
  const auto from = request.view_u32_array(kl::SYS_FROM);
  kl::message m;
  m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  m.insert(kl::SYS_CMD, kl::CMD_EXPLAIN_RIGHTS);
  m.insert(kl::RIGHTS_USER, request.get(kl::SYS_USER, ""));
  if (!from.empty()) m.insert(kl::RIGHTS_SENDER, from.front());
  m.insert(kl::RIGHTS_BITS, request.get(kl::SYS_POLICY, 0));
  m.insert(kl::RIGHTS_TO, record.get(undo_service::SOURCE, {}));
  m.insert(kl::RIGHTS_COMMAND, undo.get(kl::SYS_CMD, kl::CMD_NOOP));
  return m;
}

kl::message askerFrom(const kl::message& request, const kl::message& answer) {
  kl::message asker;
  copyField(asker, request, kl::SYS_USER);
  if (answer.has(kl::RIGHTS_BITS)) asker.insert(kl::SYS_POLICY, answer.get(kl::RIGHTS_BITS, 0));
  return asker;
}

bool isLetThrough(const kl::message& answer) {
  return answer.get(kl::RIGHTS_VERDICT, kl::RIGHTS_DENIED) != kl::RIGHTS_DENIED;
}

// The paths in the record are not believed: the message goes to where the report came from.  A system field's number
// under another type goes, too: the loader disconnects a sender of that beside the field itself.
kl::message undoMessage(const kl::message& record, const kl::message& asker) {
  kl::message m(record.get(undo_service::UNDO, {}));
  const unsigned int command = m.get(kl::SYS_CMD, kl::CMD_NOOP);
  m.removeIdMask(kl::NAMESPACE_SYS, kl::NAMESPACE_MASK);
  m.insert(kl::SYS_CMD, command);
  m.insert(kl::SYS_TO, record.get(undo_service::SOURCE, {}));
  m.insert(kl::STD_UNDOID, record.get(kl::STD_ID, kl::BADID));
  copyField(m, asker, kl::SYS_USER);
  copyField(m, asker, kl::SYS_POLICY);
  return m;
}

bool mayUndo(const kl::message& record, const kl::message& asker) {
  const unsigned int reported = record.get(undo_service::RIGHTS, kl::RIGHT_OF_NOBODY);
  const unsigned int needed = reported == 0 ? kl::RIGHT_CHANGE : reported;
  return (needed & asker.get(kl::SYS_POLICY, kl::RIGHTS_ALL)) == needed;
}

}  // namespace undo
