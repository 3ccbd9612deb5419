// Free identifiers are bits in words of 64.  All bits of a word that is not kept equal the last bit of the word before.
// The ranges 1-61, 63-192 and 193-194, bit 0 on the left:
//
//     word    0              1, 2      3
//     free    0111 ... 1101  not kept  1110 ... 0000
//     starts  0100 ... 0001            0100 ... 0000
//
// R1  an identifier that is free and follows one that is not starts a range; whatever starts one is free
// R2  a word that is wholly free or wholly taken, as the identifier before it is, and starts nothing, is not kept;
//     so a range ends in the word where it starts or in the next one that is kept
// R3  ranges may touch: the start of the upper one separates them
// R4  the mark of the tree is the word where the current range starts
//
// Taking and giving back change the bit of the identifier and the start of the next one, mostly in one word and with
// hardly a branch.  Other words that a change concerns are made, changed and dropped again by R2.

#include "ids/free_ranges.h"

#include <bit>

#include "ids/largest_range.h"

namespace kl {

using words::Place;
using words::Word;
using words::WordTree;

namespace {

constexpr std::uint64_t kAll = ~std::uint64_t{0};
constexpr std::uint64_t kTop = std::uint64_t{1} << 63;
constexpr unsigned int kLastId = 0xFFFFFFFF;

int numberOf(unsigned int id) { return static_cast<int>(id >> 6); }
std::uint64_t bitOf(unsigned int id) { return std::uint64_t{1} << (id & 63); }
unsigned int lowestBit(std::uint64_t bits) { return static_cast<unsigned int>(std::countr_zero(bits)); }
unsigned int highestBit(std::uint64_t bits) { return static_cast<unsigned int>(std::bit_width(bits)) - 1; }

bool isWordOf(Place place, unsigned int id) { return place.isWord() && place.number() == numberOf(id); }

// Needs: `place` is where the tree finds the identifier's word, or the one before.
bool isFreeAt(Place place, unsigned int id) {
  if (!place.isWord()) return false;
  const unsigned int bit = place.number() == numberOf(id) ? id & 63 : 63;
  return (place.word().free >> bit & 1) != 0;
}

// Is the identifier before the word free?
bool isFreeBefore(Place place) {
  const Place before = WordTree::previous(place);
  return before.isWord() && before.word().free >= kTop;
}

// R2.
bool isImplied(Place place) {
  return place.word().starts == 0 && place.word().free == (isFreeBefore(place) ? kAll : 0);
}

// Is the identifier's word kept, with both of its neighbours in it?
bool isInside(Place place, unsigned int id) { return isWordOf(place, id) && ((id + 1) & 63) > 1; }

// May a change make a known size wrong?
bool maySpoilSizes(Place place) { return place.leaf->largest != words::kUnknown || place.at == 0; }

std::uint64_t startsUpTo(const Word& word, std::uint64_t bit) { return word.starts & (bit | (bit - 1)); }

// The first identifier of the range that the bit belongs to.
unsigned int firstOfRange(Place place, std::uint64_t bit) {
  if (startsUpTo(place.word(), bit) == 0) {  // R2: it starts in the word before
    place = WordTree::previous(place);
    bit = kTop;
  }
  return place.firstId() + highestBit(startsUpTo(place.word(), bit));
}

// R1: the next identifier of the same range starts one of its own.
void takeBit(Word& word, std::uint64_t bit) {
  const std::uint64_t followers = word.free & ~word.starts;
  word.free &= ~bit;
  word.starts = (word.starts & ~bit) | (followers & bit << 1);
}

// The same where it follows in the next word.
void startNextWord(Place place) {
  const Place next = WordTree::next(place);
  if (next.isWord()) next.word().starts |= next.word().free & 1;
}

// The range that starts with the next identifier goes on from this one.
void joinNext(Place place, std::uint64_t bit) {
  place.word().starts &= ~(bit << 1);
  const Place next = WordTree::next(place);
  if (bit == kTop && next.isWord()) next.word().starts &= ~std::uint64_t{1};
}

}  // namespace

bool FreeRanges::contains(unsigned int id) const { return isFreeAt(words_.find(numberOf(id)), id); }

void FreeRanges::setCurrent(unsigned int first) {
  current_ = first;
  words_.mark(words_.find(numberOf(first)));
}

void FreeRanges::makeLargestCurrent() { setCurrent(findLargestRange(words_.root())); }

void FreeRanges::insertLowest(Range range) {
  std::uint64_t fromFirst = ~(bitOf(range.first) - 1);
  const std::uint64_t toLast = bitOf(range.last) | (bitOf(range.last) - 1);
  const Place end = makeWordsOf(words_.find(numberOf(range.last)), range.last);
  if (numberOf(range.first) == numberOf(range.last)) fromFirst &= toLast;
  else end.word().free |= toLast;
  const Place begin = makeWord(words_.find(numberOf(range.first)), numberOf(range.first));
  begin.word().free |= fromFirst;
  begin.word().starts |= bitOf(range.first);
  words_.forgetLargest(begin);
  dropIfImplied(words_.find(numberOf(range.last)));
}

bool FreeRanges::findFrom(unsigned int id, Range& range) const {
  Place place = words_.find(numberOf(id));
  std::uint64_t starts = isWordOf(place, id) ? place.word().starts & ~(bitOf(id) - 1) : 0;
  while (starts == 0) {
    place = WordTree::next(place);
    if (!place.isWord()) return false;
    starts = place.word().starts;
  }
  range.first = place.firstId() + lowestBit(starts);
  range.last = lastOfRange(place, range.first);
  return true;
}

bool FreeRanges::isAheadOfCurrent(unsigned int id) const {
  Range lowest{};
  if (!findFrom(0, lowest)) return true;
  return lowest.first == current_ && id < current_ && current_ - id > 1;
}

unsigned int FreeRanges::takeNext() {
  const unsigned int id = current_;
  const std::uint64_t bit = bitOf(id);
  if (bit == kTop) makeWordsOf(words_.marked(), id);
  const Place place = words_.marked();
  Word& word = place.word();
  takeBit(word, bit);
  if (bit == kTop) startNextWord(place);
  if (word.starts > bit) current_ = place.firstId() + lowestBit(word.starts & ~(bit - 1));
  else moveOn(place);
  if (maySpoilSizes(place) || word.free == 0 || bit == kTop) settle(place, id);
  return id;
}

FreeRanges::Taken FreeRanges::take(unsigned int id) {
  const Place place = words_.find(numberOf(id));
  const std::uint64_t bit = bitOf(id);
  if (!isInside(place, id)) return takeAtEdge(place, id);
  Word& word = place.word();
  if ((word.free & bit) == 0) return Taken::kNothing;
  const std::uint64_t starts = startsUpTo(word, bit);
  if (starts == 0) return takeAtEdge(place, id);
  const bool wasCurrent = place.firstId() + highestBit(starts) == current_;
  takeBit(word, bit);
  if (maySpoilSizes(place) || word.free == 0) settle(place, id);
  return wasCurrent ? Taken::kOfCurrent : Taken::kOther;
}

bool FreeRanges::giveBack(unsigned int id) {
  const Place place = words_.find(numberOf(id));
  const std::uint64_t bit = bitOf(id);
  if (!isInside(place, id)) return giveBackAtEdge(place, id);
  Word& word = place.word();
  if ((word.free & bit) != 0) return false;
  word.starts |= bit & ~(word.free << 1);
  word.free |= bit;
  if (id + 1 != current_) word.starts &= ~(bit << 1);
  if (maySpoilSizes(place) || word.free == kAll) settle(place, id);
  return true;
}

// The same where another word is concerned: the word is not kept, or the identifier is its first or its last.
FreeRanges::Taken FreeRanges::takeAtEdge(Place found, unsigned int id) {
  if (!isFreeAt(found, id)) return Taken::kNothing;
  const Place place = makeWordsOf(found, id);
  const bool wasCurrent = firstOfRange(place, bitOf(id)) == current_;
  takeBit(place.word(), bitOf(id));
  if (bitOf(id) == kTop) startNextWord(place);
  settle(place, id);
  return wasCurrent ? Taken::kOfCurrent : Taken::kOther;
}

bool FreeRanges::giveBackAtEdge(Place found, unsigned int id) {
  if (isFreeAt(found, id)) return false;
  const Place place = makeWordsOf(found, id);
  const std::uint64_t bit = bitOf(id);
  Word& word = place.word();
  const bool follows = bit == 1 ? isFreeBefore(place) : (word.free & bit >> 1) != 0;
  if (!follows) word.starts |= bit;
  word.free |= bit;
  if (id + 1 != current_) joinNext(place, bit);
  settle(place, id);
  return true;
}

// The word of this number; by R2 if it is not kept.  `found` is where the tree finds it.
Place FreeRanges::makeWord(Place found, int number) {
  if (found.isWord() && found.number() == number) return found;
  const bool isFree = found.isWord() && found.word().free >= kTop;
  return words_.insert(found, number, {isFree ? kAll : 0, 0});
}

// The word of this identifier, and the next word if the identifier concerns that.
Place FreeRanges::makeWordsOf(Place found, unsigned int id) {
  const int number = numberOf(id);
  if (bitOf(id) == kTop && id != kLastId) {
    makeWord(words_.find(number + 1), number + 1);
    found = words_.find(number);
  }
  return makeWord(found, number);
}

// The next word where a range starts has the current one; after the highest word comes the lowest.
void FreeRanges::moveOn(Place place) {
  Place next = place;
  do {
    next = WordTree::next(next);
    if (!next.isWord()) next = words_.lowest();
  } while (next.word().starts == 0 && next != place);
  if (next.word().starts == 0) return;  // nothing is free
  current_ = next.firstId() + lowestBit(next.word().starts);
  words_.mark(next);
}

// Restores the rules after a change of this identifier: known sizes are forgotten, and R2.
void FreeRanges::settle(Place place, unsigned int id) {
  words_.forgetLargest(place);
  if (bitOf(id) == kTop && id != kLastId) {
    const Place next = WordTree::next(place);
    words_.forgetLargest(next);
    dropIfImplied(next);
    place = words_.find(numberOf(id));
  }
  dropIfImplied(place);
}

void FreeRanges::dropIfImplied(Place place) {
  if (isImplied(place)) words_.erase(place);
}

}  // namespace kl
