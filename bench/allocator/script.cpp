#include "bench/allocator/script.h"

#include <random>

#include "kl/allocator.h"

namespace bench {
namespace {

constexpr std::size_t kSteps = std::size_t{1} << 20;

// Which identifiers are free, as the allocator leaves them.
class State {
 public:
  explicit State(unsigned int idCount) : isFree_(idCount), random_(4711) {
    for (unsigned int id = 0; id < idCount; ++id)
      if (random_() % 2 == 0) setFree(id, true);
  }

  std::vector<unsigned int> pairs() const {
    std::vector<unsigned int> result;
    for (unsigned int id = 0; id < isFree_.size(); ++id) {
      if (!isFree_[id]) continue;
      if (id == 0 || !isFree_[id - 1]) result.insert(result.end(), {id, id});
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
      const auto id = static_cast<unsigned int>(random_() % isFree_.size());
      if (isFree_[id] == free) return id;
    }
  }

  void setFree(unsigned int id, bool free) {
    isFree_[id] = free;
    freeCount_ += free ? 1U : -1U;
  }

 private:
  std::vector<bool> isFree_;
  std::mt19937 random_;
  unsigned int freeCount_ = 0;
};

}  // namespace

Script::Script(unsigned int freeRanges) : idCount_(freeRanges * 4) {
  State state(idCount_);
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
