// A script of operations is carried out by an allocator and by its model, a plain list of ranges.
//
//   - they hand out the same identifiers and agree on which are free
//   - they print the same ranges with the same one marked as current

#include "kl/allocator.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <sstream>

#include "fuzz/input.h"
#include "tests/lib/ids/allocator_model.h"

namespace {

using fuzz::require;
using Ids = std::vector<unsigned int>;

constexpr unsigned int kSpan = 64;  // the ranges at the beginning lie between 1 and kSpan

// Identifiers are asked for and given back in places that lie next to each other or far apart.
constexpr unsigned int kLastPlace = 255;
constexpr unsigned int kStrides[] = {1, 3, 64, 1000};

constexpr unsigned int kStepsBetweenChecks = 16;

// The output of dump() goes here while this lives.
class Captured {
 public:
  Captured() : before_(std::cout.rdbuf(text_.rdbuf())) {}
  ~Captured() { std::cout.rdbuf(before_); }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;
  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* before_;
};

std::string dumpOf(const kl::Allocator& ids) {
  const Captured captured;
  ids.dump("ids");
  return captured.text();
}

// Up to four ranges that do not touch each other.
Ids rangesFrom(fuzz::Input& input) {
  Ids ranges;
  unsigned int next = 1;
  for (unsigned int count = 1 + input.upTo(3); count > 0; --count) {
    const unsigned int first = next + input.upTo(5);
    const unsigned int last = first + input.upTo(15);
    if (last > kSpan) break;
    ranges.insert(ranges.end(), {first, last});
    next = last + 2;
  }
  return ranges;
}

class Script {
 public:
  Script(const Ids& ranges, unsigned int stride) : ids_(ranges), model_(ranges), stride_(stride) {}

  void step(fuzz::Input& input) {
    const unsigned int id = idAt(input.upTo(kLastPlace));
    const bool isFree = model_.free().contains(id);
    switch (input.upTo(3)) {
      case 0:
        if (!model_.free().empty()) require(ids_.allocate() == model_.allocate(), "the same identifier");
        break;
      case 1:
        if (isFree) allocate(id);
        break;
      case 2:
        if (!isFree) ids_.free(id), model_.giveBack(id);
        break;
      default:
        if (!model_.free().empty()) ids_.spin(), model_.spin();
        break;
    }
  }

  void checkIdentifiers() const {
    for (unsigned int id = 0; id <= kSpan; ++id) checkIdentifier(id);
    for (unsigned int place = 0; place <= kLastPlace; ++place)
      for (const unsigned int id : {idAt(place) - 1, idAt(place), idAt(place) + 1}) checkIdentifier(id);
  }

  void checkRanges() const { require(dumpOf(ids_) == model_.dump(), "the same ranges"); }

 private:
  unsigned int idAt(unsigned int place) const { return 1 + place * stride_; }

  void checkIdentifier(unsigned int id) const {
    require(ids_.isAllocated(id) != model_.free().contains(id), "the same identifiers are free");
  }

  void allocate(unsigned int id) {
    require(ids_.allocate(id) == id, "allocate(id) returns it");
    model_.allocate(id);
  }

  kl::Allocator ids_;
  kl::test::AllocatorModel model_;
  unsigned int stride_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, std::min<std::size_t>(size, 2048));
  const unsigned int stride = kStrides[input.upTo(std::size(kStrides) - 1)];
  const Ids ranges = rangesFrom(input);
  if (ranges.empty()) return 0;
  Script script(ranges, stride);
  for (unsigned int steps = 0; !input.isEmpty(); ++steps) {
    script.step(input);
    if (steps % kStepsBetweenChecks == 0) script.checkRanges();
  }
  script.checkRanges();
  script.checkIdentifiers();
  return 0;
}
