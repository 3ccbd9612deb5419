// Requests whose replies come later.
//
// A posted request is open from postMessage until exactly one of these ends it:
//     its reply     handleReply    the callback gets the reply
//     its time-out  replyTimeout   the callback gets ERROR_TIMEOUT with the request id
//     cancelPost                   the callback is not called
//     its id is needed again       the callback gets ERROR_TIMEOUT: the numbers went once around
//     the end of its handler       the callback is not called
//
// R1  an open request is in replyHandlers_ under its id, and its timer, if it has one, points there
// R2  it is gone from there before its callback runs, which may therefore do what it likes: post,
//     cancel, destroy the handler

#include <utility>

#include "kl/looper.h"
#include "looper/liveness.h"
#include "looper/paths.h"

namespace kl {

void Handler::ReplyHandler::timeout() { handler->replyTimeout(id); }

unsigned int Handler::requestMessage(message& m, unsigned int* idOut) {
  if (nextRequestID_ == BADID) nextRequestID_ = 0;
  const unsigned int id = nextRequestID_++;
  if (idOut) *idOut = id;
  setType(m, TYPE_REQUEST);
  setRequestID(m, id);
  m.insert(SYS_REPLYEXP, true);
  sendMessage(m);
  return id;
}

void Handler::sendCmd(message& m, unsigned int command) {
  m.insert(SYS_CMD, command);
  sendMessage(m);
}

message Handler::exchangeCmd(message& m, unsigned int command, int timeout) {
  m.insert(SYS_CMD, command);
  return exchangeMessage(m, timeout);
}

unsigned int Handler::postMessage(message& m, void* context, ReplyCallback callback, const message& data,
                                  int timeout) {
  Path to = pathOf(m, SYS_TO);
  const unsigned int id = requestMessage(m);
  const auto displaced = replyHandlers_.find(id);
  if (displaced != replyHandlers_.end()) {
    const Liveness self(*this);
    endPost(displaced, errorMsg(ERROR_TIMEOUT, ""));
    if (self.ended()) return id;
  }
  ReplyHandler& post = replyHandlers_[id];
  post.id = id;
  post.handler = this;
  post.context = context;
  post.callback = callback;
  post.data = data;
  post.to = std::move(to);
  if (timeout != -1)
    post.timer = getLooper()->addTimer(&post, bind<ReplyHandler, &ReplyHandler::timeout>(),
                                       static_cast<unsigned int>(timeout));
  return id;
}

void Handler::cancelPost(unsigned int id) {
  const auto post = replyHandlers_.find(id);
  if (post == replyHandlers_.end()) return;
  getLooper()->removeTimer(post->second.timer);
  replyHandlers_.erase(post);
}

void Handler::handleReply(const message& reply) {
  unsigned int id = BADID;
  if (!getRequestID(reply, &id)) return;
  const auto post = replyHandlers_.find(id);
  if (post != replyHandlers_.end()) endPost(post, reply);
}

void Handler::replyTimeout(unsigned int id) {
  const auto post = replyHandlers_.find(id);
  if (post == replyHandlers_.end()) return;
  message error = errorMsg(ERROR_TIMEOUT, "");
  setRequestID(error, id);
  endPost(post, error);
}

// R2: the record is out of the map when its callback runs.
void Handler::endPost(std::map<unsigned int, ReplyHandler>::iterator post, const message& reply) {
  const auto ended = replyHandlers_.extract(post);
  getLooper()->removeTimer(ended.mapped().timer);
  const ReplyHandler& record = ended.mapped();
  record.callback(record.context, reply, record.data);
}

const Handler::ReplyHandler* Handler::findPost(unsigned int id) const {
  const auto post = replyHandlers_.find(id);
  return post == replyHandlers_.end() ? nullptr : &post->second;
}

}  // namespace kl
