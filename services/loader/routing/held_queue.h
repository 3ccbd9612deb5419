#pragma once
// held_queue.h: what waits for a service that is not to see it yet.

#include <algorithm>
#include <cstddef>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "transport/buffer.h"

namespace loader {

enum class HeldKind : unsigned char {
  kMessage,  // a request or a notification
  kAnswer,   // a reply or a notice
  kGone,     // the notice that a service is gone
};

// Whole frames in their order, and beside the bytes who sent each of them and what it is: a death must not read them
// all again.
//
// Errors:    memory that cannot be had ends the process.
// Ownership: owns its bytes; not copied.
// Threads:   belongs to one thread.
// Cost:      adding takes amortized constant time; nothing is allocated while nothing is held.
class HeldQueue {
 public:
  std::size_t size() const { return bytes_.size(); }
  bool empty() const { return bytes_.empty(); }
  std::span<const unsigned char> bytes() const { return bytes_.bytes(); }

  // From now on its memory is taken from `account`.
  void chargeTo(Account* account) {
    bytes_.chargeTo(account, Resource::kQueueBytes);
    charge_.bind(account, Resource::kQueueBytes);
  }
  // The memory that it takes of it, and that one more frame of `count` bytes would take.
  std::size_t charged() const { return bytes_.charged() + memoryOf(frames_.capacity()); }
  std::size_t growthFor(std::size_t count) const {
    return bytes_.growthFor(count) + memoryOf(capacityForOneMore()) - memoryOf(frames_.capacity());
  }

  // Adds the frame that `write` appends to a Buffer and that counts for `share`; the number of its bytes.  `sender` is
  // the service that sent it; in a notice that a service is gone, that service.
  template <class Write>
  std::size_t add(unsigned int sender, unsigned int share, HeldKind kind, Write write) {
    const std::size_t before = bytes_.size();
    write(bytes_);
    const std::size_t size = bytes_.size() - before;
    frames_.reserve(capacityForOneMore());
    frames_.push_back({sender, share, static_cast<unsigned int>(size), kind});
    countFrames();
    return size;
  }

  // Calls `function` with the share and the bytes of each frame, in order.
  template <class Function>
  void eachFrame(Function function) const {
    for (const Frame& frame : frames_) function(frame.share, frame.size);
  }

  // Puts everything behind what is in `queue`, which takes no more memory than both did.
  void moveTo(Buffer& queue) {
    if (queue.empty()) queue = std::move(bytes_);
    else queue.append(bytes(), queue.size() + size());
    clear();
  }

  void clear() {
    bytes_.clear();
    frames_ = std::vector<Frame>();  // its memory goes, too
    countFrames();
  }

  // True when a message of `sender` is held, and no notice behind it that it is gone.
  bool hasMessageOf(unsigned int sender) const {
    bool has = false;
    for (const Frame& frame : frames_)
      if (frame.sender == sender) has = frame.kind != HeldKind::kGone;
    return has;
  }

  // Drops held replies and notices, whose process is gone.  Keeps requests, notifications, and a death notice that
  // follows a message from the dead sender.
  void keepForNextProcess() {
    HeldQueue kept;
    kept.frames_.reserve(frames_.size());
    std::set<unsigned int> heard;  // the senders whose messages are kept so far
    std::span<const unsigned char> rest = bytes();
    for (const Frame& frame : frames_) {
      const std::span<const unsigned char> bytes = rest.first(frame.size);
      rest = rest.subspan(frame.size);
      if (frame.kind == HeldKind::kAnswer) continue;
      if (frame.kind == HeldKind::kGone && heard.erase(frame.sender) == 0) continue;
      if (frame.kind == HeldKind::kMessage) heard.insert(frame.sender);
      (void)kept.add(frame.sender, frame.share, frame.kind,
                     [&](Buffer& queue) { queue.append(bytes, size()); });
    }
    bytes_ = std::move(kept.bytes_);
    frames_ = std::move(kept.frames_);
    countFrames();
  }

 private:
  struct Frame {
    unsigned int sender;
    unsigned int share;
    unsigned int size;
    HeldKind kind;
  };

  static constexpr std::size_t kLeastFrames = 16;
  static constexpr std::size_t kFramesAhead = 4096;

  static std::size_t memoryOf(std::size_t frames) { return frames * sizeof(Frame); }
  std::size_t capacityForOneMore() const {
    const std::size_t used = frames_.size();
    if (used < frames_.capacity()) return frames_.capacity();
    return used + std::max({kLeastFrames, std::min(used, kFramesAhead), used / 4});
  }
  void countFrames() { charge_.set(memoryOf(frames_.capacity())); }

  Buffer bytes_;
  std::vector<Frame> frames_;
  Charge charge_;  // of frames_
};

}  // namespace loader
