#pragma once
// shares.h: whose bytes wait in a queue.

#include <cstddef>
#include <deque>
#include <memory>
#include <unordered_map>

#include "quota/accounts.h"

namespace loader {

// The bytes that each sender has waiting in the queue of one receiver.  Bytes leave a queue at its front, in any number, so
// the senders are kept in the order of their bytes, and what is missing since the last look has left.
//
// S1  bytes that came while the queue was short (isShort) and nothing was counted are nobody's
// S2  nobody's bytes and the counted runs, in this order, make up the whole queue as it was at the last update()
// S3  a sender's count is the sum of its runs
//
// Errors:    memory that cannot be had ends the process.
// Ownership: owns its records; borrows the account.
// Threads:   belongs to one thread.
// Cost:      a comparison while the queue is short, and no memory; else amortized constant time for each delivery, and
//            8 bytes for each run of frames of one sender, which are charged beyond the first kStep.  Nobody can make
//            senders collide: services are told apart by ids that the loader gives, users by their uids.
class Shares {
 public:
  // How far a queue may fill before anybody's share is looked at.
  static constexpr std::size_t floorOf(std::size_t limit) { return limit / 4 < kFloor ? limit / 4 : kFloor; }

  // A sender may have as much waiting as is free: one alone fills half of a queue, and several come to equal shares as
  // the queue moves.
  static constexpr bool isShareUsed(std::size_t mine, std::size_t waiting, std::size_t limit) {
    return waiting >= limit || mine >= limit - waiting;
  }
  // Nobody is refused while less waits.
  static constexpr std::size_t refusesFrom(std::size_t limit) { return limit / 2; }

  // All connections of an ordinary user are one sender; other senders go by their service ids.
  static constexpr unsigned int ofUser(unsigned int uid) { return 0x80000000 | uid; }

  // From now on its memory is taken from `account`.
  void chargeTo(Account* account) { charge_.bind(account, Resource::kQueueBytes); }
  // The memory that one more frame may take of it, in a queue of `before` bytes.
  std::size_t growth(std::size_t before, std::size_t floor) const {
    if (!counts_) return before < floor ? 0 : chargedFor(1, 1);
    return chargedFor(counts_->runs.size() + 1, counts_->bytes.size() + 1) - charged();
  }

  // A sender has added `bytes` to a queue of which `before` bytes were there.
  void add(unsigned int sender, std::size_t bytes, std::size_t before, std::size_t floor) {
    if (!counts_ && before < floor) return;  // S1
    count(sender, bytes, before);
  }

  // Only so many bytes of the queue are left.
  void update(std::size_t waiting);

  // As of the last update().
  std::size_t of(unsigned int sender) const;

  bool isCounting() const { return counts_ != nullptr; }

  // The waiting bytes are nobody's from now on.
  void clear() {
    counts_.reset();
    charge_.set(0);
  }

 private:
  static constexpr std::size_t kFloor = 64 * 1024;
  static constexpr std::size_t kStep = 1024;
  static constexpr std::size_t kSenderBytes = 64;  // of its entry, with what the allocator adds

  struct Run {
    unsigned int sender;
    unsigned int bytes;
  };
  struct Counts {
    std::size_t waiting = 0;
    std::size_t nobodys = 0;
    std::deque<Run> runs;
    std::unordered_map<unsigned int, std::size_t> bytes;
  };

  // Whole steps, without the first.
  static constexpr std::size_t chargedFor(std::size_t runs, std::size_t senders) {
    return (runs * sizeof(Run) + senders * kSenderBytes) / kStep * kStep;
  }
  std::size_t charged() const { return chargedFor(counts_->runs.size(), counts_->bytes.size()); }

  void count(unsigned int sender, std::size_t bytes, std::size_t before);
  void dropFront(std::size_t bytes);
  void dropFrom(Run& run, unsigned int bytes);

  std::unique_ptr<Counts> counts_;
  Charge charge_;
};

}  // namespace loader
