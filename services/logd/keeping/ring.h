#pragma once
// ring.h: the lines in memory, the oldest of which give way to new ones.

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "keeping/line.h"
#include "keeping/system_users.h"

namespace logd {

// The newest lines that fit into a number of bytes, of which every user has a part.  When they are too many, the oldest
// lines of the user who holds most give way, and the system's only while it holds more than its own part: nobody pushes
// out the lines of others.  Lines are numbered from 0 on as they come; to others a line is known by an id of 32 bits,
// which is never 0 and never BADID.
//
//     ring.add(line);
//     for (const auto& [n, kept] : ring.since(ring.begin())) use(kept.line);
//
// Errors:    none; a line that alone is too big is not kept, but counts.
// Ownership: owns its lines; what it shows is borrowed until the next add.
// Threads:   belongs to one thread.
// Cost:      logarithmic in the number of lines and in that of users, for each line.  bytes() counts texts, the lines'
//            own fields, the fields of each origin once, and those of each part.
class Ring {
 public:
  using Number = unsigned long long;
  struct Kept {
    Line line;
    Number next = 0;  // of its part; of the last one it means nothing
  };
  using Lines = std::map<Number, Kept>;
  class Range {
   public:
    Range(Lines::const_iterator first, Lines::const_iterator last) : first_(first), last_(last) {}
    Lines::const_iterator begin() const { return first_; }
    Lines::const_iterator end() const { return last_; }

   private:
    Lines::const_iterator first_;
    Lines::const_iterator last_;
  };

  explicit Ring(std::size_t mostBytes, const SystemUsers& system = SystemUsers())
      : mostBytes_(mostBytes), system_(system) {}

  void add(Line line);

  // Numbers of the oldest line and behind the newest one; between them may be lines that have given way.
  Number begin() const { return lines_.empty() ? end_ : lines_.begin()->first; }
  Number end() const { return end_; }
  // Needs: the line has not given way.
  const Line& operator[](Number n) const { return lines_.at(n).line; }
  Range since(Number n) const { return {lines_.lower_bound(n), lines_.end()}; }
  std::size_t bytes() const { return bytes_; }

  static unsigned int idOf(Number n) { return static_cast<unsigned int>(1 + n % kIds); }
  // The line with this id, which may have given way; of one before the oldest, the oldest.
  Number from(unsigned int id) const;
  std::optional<Number> find(unsigned int id) const;

  // Followers have been sent every line so far.
  void noteTold();
  // The first line that they have not been sent, and how many since then gave way: of one user, or of all.
  Number told() const { return told_; }
  Number lostUntold(std::optional<unsigned int> uid) const;

 private:
  static constexpr Number kIds = 0xfffffffe;
  static constexpr unsigned int kSystem = 0;

  // The lines of one user, or of the system.
  struct Part {
    Number first = 0;
    Number last = 0;
    std::size_t lines = 0;
    std::size_t bytes = 0;
  };

  unsigned int partOf(const Origin& origin) const { return system_.have(origin.uid) ? kSystem : origin.uid; }
  void link(Part& part, Number n);
  void weigh(unsigned int user, Part& part, std::size_t bytes);
  unsigned int whoGivesWay() const;
  void dropOldestOf(unsigned int user);
  std::size_t forget(const Origin& origin);

  std::size_t mostBytes_;
  SystemUsers system_;
  std::size_t bytes_ = 0;
  Number end_ = 0;
  Lines lines_;
  std::map<const Origin*, std::size_t> origins_;            // how many lines have it
  std::map<unsigned int, Part> parts_;                      // by user
  std::set<std::pair<std::size_t, unsigned int>> byBytes_;  // the parts of users other than the system's
  Number told_ = 0;
  std::map<unsigned int, Number> lost_;  // lines that gave way untold, by user
};

}  // namespace logd
