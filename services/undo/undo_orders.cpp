// Each step of a request waits for the answer to the one before, and the next is taken in its callback; the request travels
// with them.  The maker of the record reports for itself what it has undone, so nothing here changes a record.

#include "undo_orders.h"

#include "kl/services.h"
#include "remarks.h"
#include "reports.h"
#include "undo.kl.h"

namespace undo {
namespace {

constexpr int kUndoTicks = 3000;
constexpr int kRightsTicks = 500;

}  // namespace

// The asker's rights here say nothing about the maker of the record, so the loader is asked.
void UndoOrders::start(const kl::message& request) {
  const unsigned int id = request.get(kl::STD_ID, kl::BADID);
  if (!records_.makers().contains(id)) return looper_.replyError(request, kl::ERROR_UNKNOWNID, "");
  const kl::message record = records_.get(id);
  if (!record.has(undo_service::SOURCE))
    return looper_.replyError(request, kl::ERROR_FAILED, "the record cannot be read");
  if (!running_.insert(id).second) return looper_.replyError(request, kl::ERROR_BUSY, "");
  if (!request.has(kl::SYS_POLICY)) return sendUndo(record, request, request);
  kl::message m = rightsQuestion(record, request);
  looper_.postMessage(m, this, kl::bind<UndoOrders, &UndoOrders::onRights>(), request, kRightsTicks);
}

// U3.  The record may have gone meanwhile, and the process that made it.
void UndoOrders::onRights(const kl::message& answer, const kl::message& request) {
  const unsigned int id = request.get(kl::STD_ID, kl::BADID);
  unsigned int code = kl::ERROR_OK;
  std::string text;
  if (kl::isError(answer, &code, &text)) return refuse(request, code, text);
  if (!records_.makers().contains(id)) return refuse(request, kl::ERROR_UNKNOWNID);
  const kl::message record = records_.get(id);
  const kl::message asker = askerFrom(request, answer);
  if (isLetThrough(answer) && mayUndo(record, asker)) return sendUndo(record, asker, request);
  log(kl::TOPIC_WARNING,
      "refuses to undo " + recordText(id) + " for the user " + request.get(kl::SYS_USER, "(none)"));
  refuse(request, kl::ERROR_NOTALLOWED, "your rights at the service that made the record do not suffice");
}

void UndoOrders::sendUndo(const kl::message& record, const kl::message& asker, const kl::message& request) {
  kl::message m = undoMessage(record, asker);
  looper_.postMessage(m, this, kl::bind<UndoOrders, &UndoOrders::onAnswer>(), request, kUndoTicks);
}

void UndoOrders::refuse(const kl::message& request, unsigned int code, const std::string& text) {
  running_.erase(request.get(kl::STD_ID, kl::BADID));
  looper_.replyError(request, code, text);
}

void UndoOrders::onAnswer(const kl::message& reply, const kl::message& request) {
  const unsigned int id = request.get(kl::STD_ID, kl::BADID);
  running_.erase(id);
  unsigned int code = kl::ERROR_OK;
  std::string text;
  if (!kl::isError(reply, &code, &text)) return looper_.replyMessage(request, {});
  log(kl::TOPIC_NOTICE, recordText(id) + " could not be undone: " + kl::getError(reply));
  looper_.replyError(request, code, text);
}

}  // namespace undo
