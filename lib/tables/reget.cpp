// The re-fetch that waits.
//
//     first chunk --reply--> next object ... --none left, STD_GETALLID--> next chunk
//                                            --none left, no STD_GETALLID--> ended

#include "kl/reget.h"

#include "base/report.h"

namespace kl {
namespace {

constexpr unsigned int kReplyTicks = 6000;

void stamp(message& m, unsigned int filter) {
  if (!m.has(REGET_FILTER)) m.insert(REGET_FILTER, filter);
}

}  // namespace

Reget::~Reget() = default;

// Kept on purpose: a base without fields is not stamped, setBase stamps it later.
// Held by RegetTest.TheFilterIsStampedIntoTheBaseWhicheverComesFirst.
void Reget::setFilter(unsigned int value) {
  constexpr unsigned int kShortestWithFields = 3;
  filter_ = value;
  if (base_.max_length() >= kShortestWithFields) stamp(base_, filter_);
}

void Reget::setBase(const message& base) {
  base_ = base;
  stamp(base_, filter_);
}

bool Reget::isEmpty() {
  if (ended_ || ready_) return ended_;
  ready_ = load();
  ended_ = !ready_;
  return ended_;
}

message Reget::pop() {
  ready_ = false;
  stamp(current_, filter_);
  return current_;
}

bool FullReget::load() {
  while (firstChunk_ || index_ == count_) {
    getChunk();
    if (failed_) return false;
  }
  const message& reply = reply_;
  current_ = (*reply.get_message_array_ref(STD_OBJS))[index_++];
  return true;
}

void FullReget::getChunk() {
  if (!base_.has(SYS_CMD)) base_.insert(SYS_CMD, CMD_GETALL);
  message request(base_);
  if (!firstChunk_) {
    failed_ = !reply_.has(STD_GETALLID);
    if (failed_) return;
    request.insert(STD_GETALLID, reply_.get(STD_GETALLID, BADID));
  }
  reply_ = getLooper()->exchangeMessage(request, static_cast<int>(timeout_ == 0 ? kReplyTicks : timeout_));
  if (isError(reply_)) printLine("FULLREGET: ", getError(reply_).c_str());
  count_ = reply_.size_message_array(STD_OBJS);
  index_ = 0;
  firstChunk_ = false;
  failed_ = count_ == 0 && !reply_.has(STD_GETALLID);
}

}  // namespace kl
