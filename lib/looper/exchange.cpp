// Asking and waiting: the operations that read messages themselves instead of letting the loop do it.
//
// E1  while an exchange waits, no handler runs: messages that arrive are queued, and dispatched when the loop next is
//     about to sleep
// E2  a process never leaves in the middle of an exchange
// E3  a reply ends an exchange when it carries its request id and comes back on its path

#include <utility>

#include "kl/looper.h"
#include "kl/services.h"
#include "looper/paths.h"
#include "looper/timeout.h"

namespace kl {

message Looper::exchangeMessage(message& m, int timeout) {
  if (!hasPath(m, SYS_TO)) return errorMsg(ERROR_FAILED, "bad_message");
  if (std::exchange(leaveAsked_, false)) sendCtrl(CTRL_REFUSED);  // E2
  const Path from = pathOf(m, SYS_FROM);
  const unsigned int id = requestMessage(m);
  flushMessages();
  Timeout limit(timeout);
  while (socket_ != -1) {
    message reply;
    const bool found = readMessage(reply, limit);
    if (found && isAnswer(reply, id, from, m)) return reply;
    if (found) keepForLater(reply);
    if (limit.expired() || (!found && !limit.waits())) break;
  }
  return errorMsg(ERROR_TIMEOUT, "");
}

message Looper::getMessage(int timeout) {
  message m;
  if (!queue_.empty()) {
    m.swap(queue_.front());
    queue_.pop_front();
    return m;
  }
  if (!readMessage(m, timeout)) return errorMsg(ERROR_TIMEOUT, "timeout");
  if (unsigned int code = 0; isCtrl(m, &code)) return ctrlErrorMsg(code);
  return m;
}

void Looper::ensure(unsigned int id) {
  message m;
  m.insert(SYS_TO, {id});
  m.insert(SYS_CMD, CMD_NOOP);
  (void)exchangeMessage(m, -1);
}

// E1, E2
void Looper::keepForLater(const message& m) {
  unsigned int code = 0;
  if (!isCtrl(m, &code)) return queueMessage(m);
  if (code == CTRL_LEAVE) sendCtrl(CTRL_REFUSED);
}

// E3.  The requests that a handler exchanges and those that it posts are numbered by two counters, so one of
// each may be open under one id; then SYS_FROM of the reply decides which of the two it answers.
bool Looper::isAnswer(const message& reply, unsigned int id, const std::vector<unsigned int>& from,
                      const message& request) const {
  unsigned int replyID = BADID;
  if (isCtrl(reply) || !isReply(reply) || !getRequestID(reply, &replyID) || replyID != id) return false;
  if (pathOf(reply, SYS_TO) != from) return false;
  const auto caller = from.empty() ? handlers_.end() : handlers_.find(from.front());
  const ReplyHandler* const post = caller == handlers_.end() ? nullptr : caller->second->findPost(id);
  if (!post) return true;
  const Path& callee = pathOf(reply, SYS_FROM);
  return callee == pathOf(request, SYS_TO) || callee != post->to;
}

}  // namespace kl
