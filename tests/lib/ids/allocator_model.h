#pragma once
// allocator_model.h: an allocator as plain as it can be.  A list of ranges is walked from its head, and the free
// identifiers are a set besides.

#include <iterator>
#include <list>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace kl::test {

class AllocatorModel {
 public:
  // Pairs of first and last that are not adjacent.
  explicit AllocatorModel(const std::vector<unsigned int>& pairs) {
    for (std::size_t i = 0; i < pairs.size(); i += 2) {
      ranges_.push_back({pairs[i], pairs[i + 1]});
      for (unsigned int id = pairs[i]; id <= pairs[i + 1]; ++id) free_.insert(id);
    }
    current_ = ranges_.begin();
  }

  const std::set<unsigned int>& free() const { return free_; }
  std::size_t rangeCount() const { return ranges_.size(); }

  unsigned int allocate() {
    const unsigned int id = current_->first;
    if (current_->first++ == current_->last) drop(current_);
    free_.erase(id);
    return id;
  }

  void allocate(unsigned int id) {
    auto range = ranges_.begin();
    while (id > range->last) ++range;
    const bool wasCurrent = range == current_;
    free_.erase(id);
    if (range->first == range->last) drop(range);
    else if (id == range->first) ++range->first;
    else if (id == range->last) --range->last;
    else {
      ranges_.insert(std::next(range), {id + 1, range->last});
      range->last = id - 1;
    }
    if (wasCurrent) spin();
  }

  void spin() {
    for (auto range = current_ = ranges_.begin(); range != ranges_.end(); ++range)
      if (range->last - range->first > current_->last - current_->first) current_ = range;
  }

  void giveBack(unsigned int id) {
    auto above = ranges_.begin();
    while (above != ranges_.end() && id > above->last) ++above;
    const auto below = above == ranges_.begin() ? ranges_.end() : std::prev(above);
    free_.insert(id);
    if (below != ranges_.end() && below->last + 1 == id) {
      below->last = id;
      if (above != ranges_.end() && above->first == id + 1 && above != current_) {
        below->last = above->last;
        ranges_.erase(above);
      }
    } else if (above != ranges_.end() && above->first == id + 1 && above != current_) {
      above->first = id;
    } else {
      ranges_.insert(above, {id, id});
      if (ranges_.size() == 1) current_ = ranges_.begin();
    }
  }

  std::string dump() const {
    std::ostringstream text;
    text << "ids:\n";
    for (auto range = ranges_.begin(); range != ranges_.end(); ++range)
      text << "  " << range->first << " - " << range->last << (range == current_ ? " *" : "") << "\n";
    text << "------\n";
    return text.str();
  }

 private:
  struct Range {
    unsigned int first;
    unsigned int last;
  };

  void drop(std::list<Range>::iterator range) {
    const bool wasCurrent = range == current_;
    const auto next = ranges_.erase(range);
    if (wasCurrent) current_ = next == ranges_.end() ? ranges_.begin() : next;
  }

  std::list<Range> ranges_;
  std::list<Range>::iterator current_;
  std::set<unsigned int> free_;
};

}  // namespace kl::test
