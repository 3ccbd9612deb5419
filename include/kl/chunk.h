#pragma once
// kl/chunk.h: the answer of a service to CMD_GETALL.

#include <vector>

#include "kl/conventions.h"
#include "kl/export.h"
#include "kl/message.h"

namespace kl {

// Objects of a table, as many as one reply takes, and the id that the asker goes on from.  The other side is
// kl/reget.h.
//
//     kl::message cmdGetAll(const kl::message&, unsigned int start, unsigned int count) override {
//       kl::Chunk chunk(count);
//       for (auto at = start == kl::BADID ? all_.begin() : all_.lower_bound(start); at != all_.end(); ++at)
//         if (!chunk.add(at->first, object(at->second))) break;
//       return chunk.reply();
//     }
//
// Errors:    the first object is taken whatever its size; one of 64 KiB makes a reply that is not sent.
// Ownership: owns the bytes of the objects; a value.
// Threads:   belongs to one thread.
// Cost:      each object is flattened once; at most mostBytes of them are kept, and the first.
class KL_API Chunk {
 public:
  // A quarter of a frame: a table is read in steps between which others get their turn.
  static constexpr std::size_t kMostBytes = 16383;

  // At most so many objects (0: any number) of so many bytes in all.
  explicit Chunk(unsigned int mostObjects, std::size_t mostBytes = kMostBytes)
      : mostObjects_(mostObjects), mostBytes_(mostBytes) {}

  // Takes the next object; false when the chunk has no room for it: the walk ends, and goes on from this id.
  bool add(unsigned int id, const message& object);

  // STD_OBJS, and STD_GETALLID when an object found no room.
  message reply() const;

 private:
  unsigned int mostObjects_;
  std::size_t mostBytes_;
  std::size_t bytes_ = 0;
  std::vector<message::flat_message> objects_;
  bool isFull_ = false;
  unsigned int next_ = 0;
};

}  // namespace kl
