// The allocator of identifiers beside a counter that is only counted up, and beside what else one could take:
// a map of ranges, and a bitmap with summaries, which needs memory for every identifier, free or not.
//
// The peers do not wait with what was given back and check nothing, so what they hand out differs from the
// script; what they cannot do then costs them nothing.

#include <array>
#include <bit>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "bench/allocator/script.h"
#include "bench/support/paired.h"
#include "kl/allocator.h"

namespace {

using bench::Script;

class Product {
 public:
  explicit Product(const Script& script) { startAgain(script); }
  void startAgain(const Script& script) { ids_.emplace(script.start()); }
  unsigned int take() { return ids_->allocate(); }
  void take(unsigned int id) { ids_->allocate(id); }
  void giveBack(unsigned int id) { ids_->free(id); }

 private:
  std::optional<kl::Allocator> ids_;
};

// It notes what is taken and what is given back in two places: in one, the compiler would make both steps the same
// and spare the limit a decision between random steps that everybody else has to take.
class Counter {
 public:
  explicit Counter(const Script&) {}
  void startAgain(const Script&) {}
  unsigned int take() {
    next_ = next_ + 1;
    return next_;
  }
  void take(unsigned int id) { taken_ = id; }
  void giveBack(unsigned int id) { givenBack_ = id; }

 private:
  volatile unsigned int next_ = 0;
  volatile unsigned int taken_ = 0;
  volatile unsigned int givenBack_ = 0;
};

// Ranges by their last identifier, always joined; taking any means the lowest one from a cursor on.
class MapOfRanges {
 public:
  explicit MapOfRanges(const Script& script) { startAgain(script); }

  void startAgain(const Script& script) {
    ranges_.clear();
    for (std::size_t i = 0; i < script.start().size(); i += 2)
      ranges_.emplace_hint(ranges_.end(), script.start()[i + 1], script.start()[i]);
  }

  unsigned int take() {
    auto range = ranges_.lower_bound(cursor_);
    if (range == ranges_.end()) range = ranges_.begin();
    if (range == ranges_.end()) return 0;
    cursor_ = range->second;
    if (range->second++ == range->first) ranges_.erase(range);
    return cursor_;
  }

  void take(unsigned int id) {
    const auto range = ranges_.lower_bound(id);
    if (range == ranges_.end() || range->second > id) return;
    const unsigned int first = range->second;
    if (id == range->first) ranges_.erase(range);
    else range->second = id + 1;
    if (first < id) ranges_.emplace(id - 1, first);
  }

  void giveBack(unsigned int id) {
    const auto above = ranges_.lower_bound(id);
    if (above != ranges_.end() && above->second <= id) return;
    unsigned int first = id;
    if (above != ranges_.begin() && std::prev(above)->first + 1 == id) {
      first = std::prev(above)->second;
      ranges_.erase(std::prev(above));
    }
    if (above != ranges_.end() && above->second == id + 1) above->second = first;
    else ranges_.emplace_hint(above, id, first);
  }

 private:
  std::map<unsigned int, unsigned int> ranges_;
  unsigned int cursor_ = 0;
};

// A bit for each identifier; above it, a bit for each word that is not zero, and so on.
class Bitmap {
 public:
  explicit Bitmap(const Script& script) { startAgain(script); }

  void startAgain(const Script& script) {
    std::size_t bits = script.idEnd();
    for (auto& level : levels_) level.assign(bits = bits / 64 + 1, 0);
    for (std::size_t i = 0; i < script.start().size(); i += 2)
      for (unsigned int id = script.start()[i]; id <= script.start()[i + 1]; ++id) giveBack(id);
  }

  unsigned int take() {
    unsigned int id = findFrom(cursor_);
    if (id == kNone) id = findFrom(0);
    if (id == kNone) return 0;
    take(id);
    cursor_ = id + 1;
    return id;
  }

  void take(unsigned int id) {
    for (auto& level : levels_) {
      level[id / 64] &= ~(1ULL << id % 64);
      if (level[id / 64] != 0) return;
      id /= 64;
    }
  }

  void giveBack(unsigned int id) {
    for (auto& level : levels_) {
      level[id / 64] |= 1ULL << id % 64;
      id /= 64;
    }
  }

 private:
  static constexpr unsigned int kNone = 0xFFFFFFFF;

  unsigned int findFrom(unsigned int id) const {
    for (std::size_t i = 0; i < levels_.size(); ++i) {
      if (id / 64 >= levels_[i].size()) return kNone;
      const unsigned long long rest = levels_[i][id / 64] >> id % 64;
      if (rest != 0) return lowestBelow(i, id + static_cast<unsigned int>(std::countr_zero(rest)));
      id = id / 64 + 1;
    }
    return kNone;
  }

  unsigned int lowestBelow(std::size_t level, unsigned int id) const {
    while (level-- > 0) id = id * 64 + static_cast<unsigned int>(std::countr_zero(levels_[level][id]));
    return id;
  }

  std::array<std::vector<unsigned long long>, 4> levels_;
  unsigned int cursor_ = 0;
};

void addCases(unsigned int freeRanges, unsigned int distance, const std::string& title) {
  const auto script = std::make_shared<const Script>(freeRanges, distance);
  const auto walk = [&script]<class Kind>(Kind*) -> bench::Batch {
    return
        [script, steps = std::make_shared<bench::Walk<Kind>>(*script)](unsigned times) { (*steps)(times); };
  };
  const bench::Batch limit = walk(static_cast<Counter*>(nullptr));
  bench::addPair(title, walk(static_cast<Product*>(nullptr)), limit);
  bench::addPair(title + ": map of ranges", walk(static_cast<MapOfRanges*>(nullptr)), limit);
  bench::addPair(title + ": bitmap", walk(static_cast<Bitmap*>(nullptr)), limit);
}

}  // namespace

int main(int argc, char** argv) {
  addCases(10, Script::kSideBySide, "10 free ranges");
  addCases(1000, Script::kSideBySide, "1,000 free ranges");
  addCases(100000, Script::kSideBySide, "100,000 free ranges");
  addCases(1000, Script::kFarApart, "1,000 free ranges far apart");
  addCases(100000, Script::kFarApart, "100,000 free ranges far apart");
  return bench::run(argc, argv);
}
