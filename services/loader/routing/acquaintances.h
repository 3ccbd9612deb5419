#pragma once
// acquaintances.h: who can know one service.

#include <cstddef>
#include <vector>

namespace loader {

// The services that sent something to one service or got something from it, by their ids: they are told when it ends.
// A service that exchanges with more than kMost others counts as known to everybody, so that the memory is bounded.
//
// Errors:    memory that cannot be had ends the process.
// Ownership: owns its ids; an id stays until it is forgotten, whatever becomes of its service.
// Threads:   belongs to one thread.
// Cost:      adding one that is known takes a search among kMost ids at most; the one of the last time, one comparison.
class Acquaintances {
 public:
  static constexpr std::size_t kMost = 128;

  void add(unsigned int id) {
    if (id != last_ && !isEverybody_) addOther(id);
  }
  void forget(unsigned int id);

  bool isEverybody() const { return isEverybody_; }
  // The ids in order; none when it is everybody.
  const std::vector<unsigned int>& ids() const { return ids_; }

 private:
  void addOther(unsigned int id);

  std::vector<unsigned int> ids_;
  unsigned int last_ = 0;  // who was added last; 0: nobody, which is no service's id
  bool isEverybody_ = false;
};

}  // namespace loader
