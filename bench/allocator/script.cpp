#include "bench/allocator/script.h"

#include <random>

#include "kl/allocator.h"

namespace bench {
namespace {

constexpr std::size_t kSteps = std::size_t{1} << 20;

// Knows which of the identifiers 0, distance, 2 * distance and so on are free, as the allocator leaves them.
class State {
 public:
  State(unsigned int idCount, unsigned int distance) : isFree_(idCount), distance_(distance), random_(4711) {
    for (unsigned int i = 0; i < idCount; ++i)
      if (random_() % 2 == 0) setFree(i * distance, true);
  }

  std::vector<unsigned int> pairs() const {
    std::vector<unsigned int> result;
    for (unsigned int i = 0; i < isFree_.size(); ++i) {
      const unsigned int id = i * distance_;
      if (!isFree_[i]) continue;
      if (result.empty() || result.back() + 1 != id) result.insert(result.end(), {id, id});
      result.back() = id;
    }
    return result;
  }

  Script::Kind chooseKind() {
    if (freeCount_ < isFree_.size() / 4) return Script::kGiveBack;
    if (freeCount_ > isFree_.size() * 3 / 4) return Script::kTake;
    const auto choice = random_() % 4;
    return choice == 0 ? Script::kTakeAny : choice == 1 ? Script::kTake : Script::kGiveBack;
  }

  unsigned int choose(bool free) {
    for (;;) {
      const auto i = static_cast<unsigned int>(random_() % isFree_.size());
      if (isFree_[i] == free) return i * distance_;
    }
  }

  void setFree(unsigned int id, bool free) {
    isFree_[id / distance_] = free;
    freeCount_ += free ? 1U : -1U;
  }

 private:
  std::vector<bool> isFree_;
  unsigned int distance_;
  std::mt19937 random_;
  unsigned int freeCount_ = 0;
};

}  // namespace

Script::Script(unsigned int freeRanges, unsigned int distance) {
  const unsigned int idCount = freeRanges * (distance == kSideBySide ? 4 : 2);
  idEnd_ = idCount * distance;
  State state(idCount, distance);
  start_ = state.pairs();
  kl::Allocator ids(start_);
  while (steps_.size() < kSteps) {
    const Kind kind = state.chooseKind();
    const unsigned int id = kind == kTakeAny ? ids.allocate() : state.choose(kind == kTake);
    if (kind == kTake) ids.allocate(id);
    if (kind == kGiveBack) ids.free(id);
    state.setFree(id, kind == kGiveBack);
    steps_.emplace_back(kind, id);
  }
}

}  // namespace bench
