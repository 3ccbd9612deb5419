#pragma once
// work.h: what the frames of a connection cost.

#include <cstddef>
#include <limits>

namespace loader {

// The units that a connection may still spend in its turn.  A unit is about the time in which eight bytes are carried
// (4 ns on the machine that the figures were measured on), so that bytes, copies and rows can be added up.
//
// Errors:    none; a turn that spends more than it has owes the rest.
// Ownership: a value.
// Threads:   belongs to one thread.
class Work {
 public:
  using Units = long long;

  static constexpr Units kAll = std::numeric_limits<Units>::max() / 2;
  static constexpr Units kFrame = 64;     // to take a frame, and to deliver each copy of it
  static constexpr Units kMessage = 512;  // to build a message of the loader's own
  static constexpr Units kRow = 1024;     // to show a row of the table

  void allow(Units units) { left_ = units; }
  void spend(Units units) { left_ -= units; }
  void spendBytes(std::size_t bytes) { left_ -= static_cast<Units>(bytes / 8); }

  Units left() const { return left_; }
  bool isSpent() const { return left_ <= 0; }

 private:
  Units left_ = kAll;
};

}  // namespace loader
