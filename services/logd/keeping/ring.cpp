// R1  bytes_ is the sum of Part::bytes, that is of weightOf over the lines and over the keys of origins_ and of
//     kPartBytes for each part, and at most mostBytes_
// R2  the lines of a part are chained by Kept::next from Part::first to Part::last; a part without lines is none
// R3  of n users beside the system each keeps (mostBytes_ - S) / n bytes whatever the others do, and the system S:
//     a quarter or, where that is more, what each would have if the system were one of them.  A part that is not
//     used the others may have until it is needed

#include "keeping/ring.h"

#include <algorithm>

namespace logd {
namespace {

constexpr std::size_t kNodeExtra = 48;    // of an element of a tree, with its allocation
constexpr std::size_t kOriginExtra = 96;  // its entry among the origins, and what shares it
constexpr std::size_t kAllocationExtra = 16;
constexpr std::size_t kPartBytes = 256;  // its entries among the parts, by bytes, and among the losses
constexpr std::size_t kSystemsPart = 4;  // a quarter

std::size_t weightOf(const Line& line) {
  return sizeof(Ring::Lines::value_type) + kNodeExtra + line.text.capacity() + kAllocationExtra;
}

std::size_t weightOf(const Origin& origin) {
  return sizeof origin + kOriginExtra + origin.process.capacity() + origin.topics.capacity() * sizeof(Topic);
}

}  // namespace

void Ring::add(Line line) {
  line.text.shrink_to_fit();
  const unsigned int user = partOf(*line.origin);
  Part& part = parts_[user];
  std::size_t bytes = weightOf(line);
  if (part.lines == 0) bytes += kPartBytes;
  if (++origins_[line.origin.get()] == 1) bytes += weightOf(*line.origin);
  link(part, end_);
  weigh(user, part, part.bytes + bytes);
  lines_.emplace_hint(lines_.end(), end_++, Kept{std::move(line)});
  while (bytes_ > mostBytes_) dropOldestOf(whoGivesWay());
}

// R2
void Ring::link(Part& part, Number n) {
  if (part.lines++ == 0) part.first = n;
  else lines_.at(part.last).next = n;
  part.last = n;
}

// R1
void Ring::weigh(unsigned int user, Part& part, std::size_t bytes) {
  if (user != kSystem) byBytes_.erase({part.bytes, user});
  bytes_ += bytes - part.bytes;
  part.bytes = bytes;
  if (user != kSystem && bytes > 0) byBytes_.insert({bytes, user});
}

// R3.  If the biggest part of a user is not too big, none of them is, and the system's must be.
unsigned int Ring::whoGivesWay() const {
  if (byBytes_.empty()) return kSystem;
  const auto& [bytes, user] = *byBytes_.rbegin();
  if (!parts_.contains(kSystem)) return user;
  const std::size_t users = byBytes_.size();
  const std::size_t systems = std::max(mostBytes_ / kSystemsPart, mostBytes_ / (users + 1));
  return bytes > (mostBytes_ - systems) / users ? user : kSystem;
}

void Ring::dropOldestOf(unsigned int user) {
  const auto part = parts_.find(user);
  const auto oldest = lines_.find(part->second.first);
  const Kept& kept = oldest->second;
  if (oldest->first >= told_) ++lost_[kept.line.origin->uid];
  part->second.first = kept.next;
  const bool wasLast = --part->second.lines == 0;
  const std::size_t freed = weightOf(kept.line) + forget(*kept.line.origin) + (wasLast ? kPartBytes : 0);
  weigh(user, part->second, part->second.bytes - freed);
  if (wasLast) parts_.erase(part);
  lines_.erase(oldest);
}

// One line of this origin goes; the bytes that come free with it.
std::size_t Ring::forget(const Origin& origin) {
  const auto entry = origins_.find(&origin);
  if (--entry->second > 0) return 0;
  origins_.erase(entry);
  return weightOf(origin);
}

Ring::Number Ring::from(unsigned int id) const {
  const Number first = begin();
  const Number ahead = (id + 2 * kIds - 1 - first % kIds) % kIds;
  if (ahead <= end_ - first) return first + ahead;
  return ahead > kIds / 2 ? first : end_;
}

std::optional<Ring::Number> Ring::find(unsigned int id) const {
  const Number n = from(id);
  if (!lines_.contains(n) || idOf(n) != id) return {};
  return n;
}

void Ring::noteTold() {
  told_ = end_;
  lost_.clear();
}

Ring::Number Ring::lostUntold(std::optional<unsigned int> uid) const {
  Number count = 0;
  for (const auto& [user, lines] : lost_) count += !uid || *uid == user ? lines : 0;
  return count;
}

}  // namespace logd
