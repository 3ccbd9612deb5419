#pragma once
// ring.h: the lines in memory, the oldest of which give way to new ones.

#include <cstddef>
#include <deque>
#include <map>
#include <optional>

#include "keeping/line.h"

namespace logd {

// The newest lines that fit into a number of bytes.  Lines are numbered from 0 on as they come; to others a line
// is known by an id of 32 bits, which is never 0 and never BADID.
//
//     ring.add(line);
//     for (auto n = ring.begin(); n != ring.end(); ++n) use(ring[n]);
//
// Errors:    none; a line that alone is too big is not kept, but counts.
// Ownership: owns its lines; what it shows is borrowed until the next add.
// Threads:   belongs to one thread.
// Cost:      constant time for each line.  bytes() counts texts, the lines' own fields, and the fields of each
//            origin once.
class Ring {
 public:
  using Number = unsigned long long;

  explicit Ring(std::size_t mostBytes) : mostBytes_(mostBytes) {}

  void add(Line line);

  Number begin() const { return first_; }
  Number end() const { return first_ + lines_.size(); }
  const Line& operator[](Number n) const { return lines_[static_cast<std::size_t>(n - first_)]; }
  std::size_t bytes() const { return bytes_; }

  static unsigned int idOf(Number n) { return static_cast<unsigned int>(1 + n % kIds); }
  // The line with this id; of a line that has given way, the oldest that has not.
  Number from(unsigned int id) const;
  std::optional<Number> find(unsigned int id) const;

 private:
  static constexpr Number kIds = 0xfffffffe;

  void dropOldest();

  std::size_t mostBytes_;
  std::size_t bytes_ = 0;
  Number first_ = 0;
  std::deque<Line> lines_;
  std::map<const Origin*, std::size_t> origins_;  // how many lines have it
};

}  // namespace logd
