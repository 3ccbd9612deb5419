// The handle: how a message gets, shares and gives up its representation.
//
// A null handle stands for the empty message: every reader goes to one constant representation, every writer makes a
// fresh one first.
//
// S1  a representation that is referred to more than once is never unshareable: copying or assigning an unshareable one
//     copies it in depth at once

#include "kl/message.h"

#include "message/wire.h"

namespace kl {
namespace {

message::Rep* sharedOrCopied(message::Rep* rep) {
  if (rep == nullptr) return nullptr;
  if (rep->unshareable) return message::Rep::copyOf(*rep);  // S1
  rep->refs.fetch_add(1, std::memory_order_relaxed);
  return rep;
}

message::Rep* fromBytes(const unsigned char* data, unsigned int len) {
  message::Rep* rep = message::Rep::make();
  if (data != nullptr)
    (void)container::readFormat(*rep, data, len, message::normal, container::Reading::copying);
  return rep;
}

}  // namespace

message::message(const message& other) : rep_(sharedOrCopied(other.rep_)) {}

message::message(const flat_message& bytes)
    : message(bytes.data(), static_cast<unsigned int>(bytes.size())) {}

message::message(const std::vector<unsigned char>& bytes)
    : message(bytes.data(), static_cast<unsigned int>(bytes.size())) {}

message::message(const unsigned char* data, unsigned int len) : rep_(fromBytes(data, len)) {}

message& message::operator=(const message& other) {
  if (rep_ == other.rep_) return *this;
  Rep* taken = sharedOrCopied(other.rep_);
  if (rep_ != nullptr) release(rep_);
  rep_ = taken;
  return *this;
}

// The old representation goes last: the bytes may lie in it.
message& message::operator=(const flat_message& bytes) {
  message fresh(bytes);
  swap(fresh);
  return *this;
}

void message::assign(const unsigned char* data, unsigned int len) {
  message fresh(data, len);
  fresh.rep_->becomeItsCopy();
  swap(fresh);
}

void message::clone() {
  Rep* copy = rep_ == nullptr ? Rep::make() : Rep::copyOf(*rep_);
  if (rep_ != nullptr) release(rep_);
  rep_ = copy;
}

void message::release(Rep* rep) {
  if (rep->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) Rep::destroy(rep);
}

}  // namespace kl
