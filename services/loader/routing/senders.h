#pragma once
// senders.h: how much one service was sent, and by whom.

#include <cstddef>
#include <vector>

namespace loader {

// The messages and bytes that were put into the queue of one service, by the ids of their senders.  Those of a sender that
// has been forgotten, and of who came when kMost others were there, are counted together, so that the memory is bounded
// and nothing is missing in the sum.
//
// Errors:    memory that cannot be had ends the process.
// Ownership: owns its figures.
// Threads:   belongs to one thread.
// Cost:      one comparison for who sent last, else a search among kMost ids.
class Senders {
 public:
  static constexpr std::size_t kMost = 128;
  static constexpr unsigned int kOthers = 0;  // the id of no service

  struct Sent {
    unsigned int sender;
    unsigned long long messages = 0;
    unsigned long long bytes = 0;
  };

  Senders() = default;
  Senders(const Senders&) = delete;
  Senders& operator=(const Senders&) = delete;

  void add(unsigned int sender, std::size_t bytes) {
    if (last_->sender != sender) [[unlikely]]
      last_ = &placeOf(sender);
    ++last_->messages;
    last_->bytes += bytes;
  }
  // What it sent counts among the others from now on.
  void forget(unsigned int sender);

  // In the order of the ids, without the others.
  const std::vector<Sent>& all() const { return all_; }
  const Sent& others() const { return others_; }

 private:
  Sent& placeOf(unsigned int sender);

  std::vector<Sent> all_;
  Sent others_{kOthers};
  Sent* last_ = &others_;
};

}  // namespace loader
