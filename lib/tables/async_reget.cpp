// The re-fetch beside the loop.
//
//     idle --start, retry, restart--> running --onReply, more to come--> running
//                                             --last reply, error, stop--> idle
//
// A1  at most one request is open, and postID_ is its number
// A2  while callbacks run, replaced_ points into deliverObjects, which asks there before it touches a member: the
//     callback may have begun another walk, or ended this object

#include "kl/reget.h"

#include <utility>

#include "base/report.h"

namespace kl {
namespace {

constexpr unsigned int kDefaultTimeout = 0xdeadbeef;
constexpr unsigned int kDefaultTicks = 6000;

}  // namespace

AsyncReget::~AsyncReget() {
  if (replaced_) *replaced_ = true;
  cancelPost();
}

void AsyncReget::start(const message& request, void* context, ObjectCallback onObject, DoneCallback onDone,
                       unsigned int timeout) {
  request_ = request;
  context_ = context;
  onObject_ = onObject;
  onDone_ = onDone;
  timeout_ = timeout == kDefaultTimeout ? kDefaultTicks : timeout;
  fetch();
}

void AsyncReget::fetch() {
  if (bool* const replaced = std::exchange(replaced_, nullptr)) *replaced = true;
  cancelPost();  // A1
  running_ = true;
  message m(request_);
  postID_ = getLooper()->postMessage(m, this, bind<AsyncReget, &AsyncReget::onReply>(), message(),
                                     static_cast<int>(timeout_));
}

void AsyncReget::onReply(const message& reply, const message&) {
  postID_ = BADID;
  if (isError(reply)) {
    if (!onDone_) printLine("ERROR: AsyncReget failed: ", getError(reply).c_str());
  } else if (!reply.has(STD_OBJS)) {
    printLine("ERROR: AsyncReget got reply without STD_OBJS");
  } else {
    const Delivery delivery = deliverObjects(reply);
    if (delivery == Delivery::kReplaced) return;
    if (delivery == Delivery::kWhole && reply.has(STD_GETALLID)) {
      request_.insert(STD_GETALLID, reply.get(STD_GETALLID, BADID));
      return fetch();
    }
    if (delivery == Delivery::kWhole && !onDone_) printLine("AsyncReget done");
  }
  running_ = false;
  if (onDone_) onDone_(context_, reply);
}

// A2
AsyncReget::Delivery AsyncReget::deliverObjects(const message& reply) {
  bool replaced = false;
  replaced_ = &replaced;
  for (const auto& object : *reply.get_message_array_ref(STD_OBJS)) {
    if (onObject_) onObject_(context_, object);
    if (replaced) return Delivery::kReplaced;
    if (!running_) break;
  }
  replaced_ = nullptr;
  return running_ ? Delivery::kWhole : Delivery::kStopped;
}

void AsyncReget::stop() {
  cancelPost();
  running_ = false;
}

void AsyncReget::retry() {
  if (running_) return printLine("ERROR: AsyncReget retry() impossible while running");
  fetch();
}

void AsyncReget::restart() {
  if (running_) return printLine("ERROR: AsyncReget restart() impossible while running");
  request_.remove(STD_GETALLID);
  fetch();
}

void AsyncReget::cancelPost() {
  if (postID_ == BADID) return;
  if (Looper* const looper = getLooper()) looper->cancelPost(postID_);
  postID_ = BADID;
}

}  // namespace kl
