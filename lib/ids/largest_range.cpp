// The largest range below a node is worked out on demand, and kept there until a word below it changes.

#include "ids/largest_range.h"

#include <algorithm>
#include <bit>

namespace kl {
namespace {

using words::kUnknown;
using words::Leaf;
using words::Node;
using words::Place;
using words::Word;

struct Sized {
  std::uint64_t size;
  unsigned int first;
};

// Bits that do not go on with the range before.
std::uint64_t stops(const Word& word) { return ~word.free | word.starts; }

// Does a range that starts in the word have more identifiers than this in it?  The bits that are followed by as many of
// their range are found by doubling.
bool hasLarger(const Word& word, std::uint64_t size) {
  if (size == 0) return word.starts != 0;
  if (size >= 64) return false;
  std::uint64_t runs = ~stops(word);
  unsigned int length = 1;
  for (; length * 2 <= size; length *= 2) runs &= runs >> length;
  runs &= runs >> (size - length);
  return (word.starts << 1 & runs) != 0;
}

// The largest of the parts of ranges that lie in the word where they start.  One bit of each is moved up as long as
// any is still in its range.
Sized largestPart(Place place) {
  const std::uint64_t inside = ~stops(place.word());
  std::uint64_t ends = place.word().starts;
  unsigned int size = 1;
  for (std::uint64_t more = ends << 1 & inside; more != 0; more = ends << 1 & inside) {
    ends = more;
    ++size;
  }
  return {size, place.firstId() + static_cast<unsigned int>(std::countr_zero(ends)) + 1 - size};
}

// The last range that starts in a word may end in another.
Sized lastRange(Place place) {
  const unsigned int first =
      place.firstId() + static_cast<unsigned int>(std::bit_width(place.word().starts)) - 1;
  return {std::uint64_t{1} + lastOfRange(place, first) - first, first};
}

// The first of the largest ranges that start in a leaf and are larger than this, or size and no range.
Sized findLarger(Leaf& leaf, std::uint64_t size) {
  Sized largest{size, 0};
  for (Place place{&leaf, 0}; place.at < leaf.count; ++place.at) {
    if (hasLarger(place.word(), largest.size)) largest = largestPart(place);
    if (place.word().free >> 63 == 0 || place.word().starts == 0) continue;
    const Sized last = lastRange(place);
    if (last.size > largest.size) largest = last;
  }
  return largest;
}

std::uint64_t largestBelow(Node& node) {
  if (node.largest != kUnknown) return node.largest;
  if (node.isLeaf) return node.largest = findLarger(static_cast<Leaf&>(node), 0).size;
  std::uint64_t largest = 0;
  const auto& branch = static_cast<const words::Branch&>(node);
  for (int i = 0; i < branch.count; ++i) largest = std::max(largest, largestBelow(*branch.child[i]));
  return node.largest = largest;
}

}  // namespace

unsigned int lastOfRange(Place place, unsigned int first) {
  const unsigned int bit = first & 63;
  const std::uint64_t here = stops(place.word()) >> bit >> 1;
  if (here != 0) return first + static_cast<unsigned int>(std::countr_zero(here));
  const Place next = words::WordTree::next(place);
  if (!next.isWord()) return 0xFFFFFFFF;
  return next.firstId() + static_cast<unsigned int>(std::countr_zero(stops(next.word()))) - 1;
}

unsigned int findLargestRange(Node& root) {
  const std::uint64_t size = largestBelow(root);
  Node* node = &root;
  while (!node->isLeaf) {
    Node* const* child = static_cast<const words::Branch&>(*node).child;
    while ((*child)->largest != size) ++child;
    node = *child;
  }
  return findLarger(static_cast<Leaf&>(*node), size - 1).first;
}

}  // namespace kl
