// Comparing messages, merging one into another, removing by mask.
//
// C1  equality is inclusion and equal sizes; the order of slots and lists does not matter
// C2  whatever disagrees with its id's type is equal to anything, but counts

#include "message/rep.h"

namespace kl {
namespace {

using container::Elements;
using container::hasLongElements;
using container::Kind;
using container::Node;
using container::NodeList;
using container::Span;

bool equalBytes(Span a, Span b) {
  return a.size == b.size && (a.size == 0 || std::memcmp(a.data, b.data, a.size) == 0);
}

bool equalElements(const Node& a, const Node& b) {
  if (valueCount(a) != valueCount(b)) return false;
  const bool areNumbers = !hasLongElements(a.kind) && a.kind != Kind::addr6Array;
  Elements left(a);
  for (Elements right(b); !right.atEnd(); left.next(), right.next())
    if (areNumbers ? left.number() != right.number() : !equalBytes(left.bytes(), right.bytes())) return false;
  return true;
}

// One value has one form in bytes, so equal values have equal bytes.
bool equalValues(const Node& a, const Node& b) {
  if (!b.agrees()) return true;  // C2
  if (a.kind != b.kind) return false;
  if (!isArray(a.kind)) return equalBytes(bytesOf(a), bytesOf(b));
  if (a.hasObject() || b.hasObject()) return equalElements(a, b);
  return a.count == b.count && equalBytes({a.content(), a.size}, {b.content(), b.size});
}

// Lists of one origin are mostly in the same order, so the node that is due is tried before the search.
bool includesList(const NodeList& mine, const NodeList& other, unsigned int& count) {
  count = 0;
  const Node* due = mine.head();
  for (const Node* node = other.head(); node != nullptr; node = node->next) {
    ++count;
    const Node* match = due != nullptr && due->id == node->id ? due : mine.find(node->id).node;
    if (match == nullptr || !equalValues(*match, *node)) return false;
    due = match->next;
  }
  return true;
}

bool includesInlineBool(const message::Rep& mine, const message::Rep& other) {
  const bool* v = mine.findBool(other.boolId);
  return v != nullptr && *v == other.boolValue;
}

bool includesBoolTable(const message::Rep& mine, const htable<bool>& other) {
  if (mine.bools != nullptr) return mine.bools->includes(other);
  if (mine.boolId == message::Rep::kNoBool) return other.count() == 0;
  if (other.count() == 0) return true;
  const bool* v = other.get(mine.boolId);
  return other.count() == 1 && v != nullptr && *v == mine.boolValue;
}

void mergeBools(message::Rep& mine, const message::Rep& other) {
  if (other.bools != nullptr) {
    if (mine.bools == nullptr) mine.makeBoolTable();
    mine.bools->merge(*other.bools, mine.memory);
  } else if (other.boolId != message::Rep::kNoBool) {
    mine.boolRef(other.boolId) = other.boolValue;
  }
}

void mergeList(message::Rep& mine, const NodeList& other) {
  for (const Node* node = other.head(); node != nullptr; node = node->next)
    if (node->agrees()) mine.putCopy(*node);
}

void removeBoolsByMask(message::Rep& rep, unsigned int id, unsigned int mask) {
  if (rep.boolId != message::Rep::kNoBool && (rep.boolId & mask) == id) rep.boolId = message::Rep::kNoBool;
  if (rep.bools != nullptr) rep.bools->removeIdMask(id, mask);
}

}  // namespace

bool message::operator==(const message& other) const {
  if (rep_ == other.rep_) return true;
  const Rep& mine = RepAccess::read(*this);
  const Rep& theirs = RepAccess::read(other);
  unsigned int walked = 0;
  return mine.boolCount() == theirs.boolCount() && includes_bools(&theirs) &&
         mine.u32s.count() == theirs.u32s.count() && mine.u32s.includes(theirs.u32s) &&
         mine.fields.count() == theirs.fields.count() && includes_fields(&theirs, walked) &&
         mine.arrays.count() == theirs.arrays.count() && includes_arrays(&theirs, walked);
}

bool message::includes(const message& other) const {
  if (rep_ == other.rep_) return true;
  const Rep& theirs = RepAccess::read(other);
  unsigned int walked = 0;
  return includes_bools(&theirs) && RepAccess::read(*this).u32s.includes(theirs.u32s) &&
         includes_fields(&theirs, walked) && includes_arrays(&theirs, walked);
}

bool message::includes_bools(const Rep* other) const {
  const Rep& mine = RepAccess::read(*this);
  if (other->boolId != Rep::kNoBool) return includesInlineBool(mine, *other);
  return other->bools == nullptr || includesBoolTable(mine, *other->bools);
}

bool message::includes_fields(const Rep* other, unsigned int& count) const {
  return includesList(RepAccess::read(*this).fields, other->fields, count);
}

bool message::includes_arrays(const Rep* other, unsigned int& count) const {
  return includesList(RepAccess::read(*this).arrays, other->arrays, count);
}

[[gnu::cold]] void message::merge(const message& other) {
  if (rep_ == other.rep_ || other.rep_ == nullptr) return;
  if (rep_ == nullptr) {
    *this = other;
    return;
  }
  Rep& mine = RepAccess::own(*this);
  const Rep& theirs = *other.rep_;
  mergeBools(mine, theirs);
  mine.u32s.merge(theirs.u32s, mine.memory);
  mergeList(mine, theirs.fields);
  mergeList(mine, theirs.arrays);
}

[[gnu::cold]] void message::removeIdMask(unsigned int id, unsigned int mask) {
  if (rep_ == nullptr) return;
  Rep& rep = RepAccess::own(*this);
  const unsigned int pattern = id & mask;
  if (pattern < 0x08000000) removeBoolsByMask(rep, pattern, mask);
  if ((pattern & 0xF8000000) == (mask & 0x08000000)) rep.u32s.removeIdMask(pattern, mask);
  rep.removeIdMask(rep.fields, pattern, mask);
  rep.removeIdMask(rep.arrays, pattern, mask);
}

}  // namespace kl
