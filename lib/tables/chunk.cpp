// One reply to CMD_GETALL: objects go in until the next one finds no room; its id is where the asker goes on.

#include "kl/chunk.h"

#include <utility>

namespace kl {

bool Chunk::add(unsigned int id, const message& object) {
  const bool hasNumber = mostObjects_ == 0 || objects_.size() < mostObjects_;
  message::flat_message bytes = hasNumber ? object.flattened() : message::flat_message();
  if (hasNumber && (objects_.empty() || bytes_ + bytes.size() <= mostBytes_)) {
    bytes_ += bytes.size();
    objects_.push_back(std::move(bytes));
    return true;
  }
  isFull_ = true;
  next_ = id;
  return false;
}

message Chunk::reply() const {
  message m;
  m.insert(STD_OBJS, objects_);
  if (isFull_) m.insert(STD_GETALLID, next_);
  return m;
}

}  // namespace kl
