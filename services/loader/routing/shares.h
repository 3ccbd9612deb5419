#pragma once
// shares.h: whose bytes wait in a queue.

#include <cstddef>
#include <deque>
#include <memory>
#include <unordered_map>

namespace loader {

// What each sender has waiting in the queue of one receiver.  Bytes leave a queue at its front, in any number, so the
// senders are kept in the order of their bytes, and what is missing since the last look has left.
//
// S1  bytes that came while the queue was short (isShort) and nothing was counted are nobody's
// S2  nobody's bytes and the counted runs, in this order, make up the whole queue as it was at the last update()
// S3  a sender's count is the sum of its runs
//
// Errors:    memory that cannot be had ends the process.
// Ownership: owns its records; moved, not copied.
// Threads:   belongs to one thread.
// Cost:      a comparison while the queue is short, and no memory; else amortized constant time for each delivery, and
//            at most 8 bytes for each run of frames of one sender.  Nobody can make senders collide: services are
//            told apart by ids that the loader gives, users by their uids.
class Shares {
 public:
  // How far a queue may fill before anybody's part is looked at.
  static constexpr std::size_t floorOf(std::size_t limit) { return limit / 4 < kFloor ? limit / 4 : kFloor; }

  // A sender may have as much waiting as is free: one alone fills half of a queue, and several come to equal parts as
  // the queue moves.
  static constexpr bool isPartUsed(std::size_t mine, std::size_t waiting, std::size_t limit) {
    return waiting >= limit || mine >= limit - waiting;
  }
  // Nobody is refused while less waits.
  static constexpr std::size_t refusesFrom(std::size_t limit) { return limit / 2; }

  // All connections of an ordinary user are one sender; other senders go by their service ids.
  static constexpr unsigned int ofUser(unsigned int uid) { return 0x80000000 | uid; }

  // A sender has added `bytes` to a queue of which `before` bytes were there.
  void add(unsigned int sender, std::size_t bytes, std::size_t before, std::size_t floor) {
    if (!counts_ && before < floor) return;  // S1
    count(sender, bytes, before);
  }

  // Only so many bytes of the queue are left.
  void update(std::size_t waiting);

  // As of the last update().
  std::size_t of(unsigned int sender) const;

  // What waits is nobody's from now on.
  void clear() { counts_.reset(); }

 private:
  static constexpr std::size_t kFloor = 64 * 1024;

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

  void count(unsigned int sender, std::size_t bytes, std::size_t before);
  void dropFront(std::size_t bytes);
  void dropFrom(Run& run, unsigned int bytes);

  std::unique_ptr<Counts> counts_;
};

}  // namespace loader
