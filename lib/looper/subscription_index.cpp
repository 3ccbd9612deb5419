// Finding a subscription among many.
//
// A message is flattened, and the hashes of its records are added up, because equal messages may hold their fields in
// different orders.  Records of one hash are then compared.
//
// X1  the table covers all messages of the list or none: it is made when they become many, and goes when few are left
// X2  at most half of its entries are in use

#include "looper/subscription_index.h"

#include <algorithm>
#include <span>

#include "kl/records.h"

namespace kl {
namespace {

constexpr std::size_t kFirstEntries = 64;

std::uint64_t hashOf(std::span<const unsigned char> bytes, std::uint64_t factor) {
  std::uint64_t hash = factor;
  for (const unsigned char byte : bytes) {
    hash = (hash ^ byte) * factor;
    hash ^= hash >> 32;
  }
  return hash;
}

// A record that does not read back, because it is longer than the byte format can express, has one hash for all.
std::uint32_t hashOf(const message& record) {
  const message::flat_message bytes = record.flattened();
  const std::uint64_t factor = idHashFactor();
  std::uint64_t sum = 0;
  RecordWalk walk(bytes);
  for (Record field; walk.next(field);) sum += hashOf(field.bytes(), factor);
  return walk.ok() ? static_cast<std::uint32_t>(sum ^ sum >> 32) : 0;
}

}  // namespace

std::size_t SubscriptionIndex::find(const std::vector<message>& list, const message& record) const {
  if (serials_.empty())
    return static_cast<std::size_t>(std::find(list.begin(), list.end(), record) - list.begin());
  std::size_t first = list.size();
  for (const Entry* entry = table_.find(hashOf(record)); entry != nullptr; entry = table_.findNext(entry)) {
    const std::size_t place = placeOf(*entry);
    if (place < first && list[place] == record) first = place;
  }
  return first;
}

void SubscriptionIndex::noteAdded(const std::vector<message>& list) {
  if (list.size() <= kFew) return;
  while (serials_.size() < list.size()) add(list[serials_.size()]);
}

void SubscriptionIndex::noteRemoval(const std::vector<message>& list, std::size_t place) {
  if (serials_.empty()) return;
  if (serials_.size() <= kFew) return clear();
  Entry* entry = table_.find(hashOf(list[place]));
  while (placeOf(*entry) != place) entry = table_.findNext(entry);
  table_.remove(entry);
  serials_.erase(serials_.begin() + static_cast<std::ptrdiff_t>(place));
}

std::size_t SubscriptionIndex::placeOf(const Entry& entry) const {
  const auto place = std::lower_bound(serials_.begin(), serials_.end(), entry.serial);
  return static_cast<std::size_t>(place - serials_.begin());
}

void SubscriptionIndex::add(const message& record) {
  const std::size_t count = serials_.size() + 1;
  if (2 * count > table_.size()) renew(std::max(kFirstEntries, 2 * table_.size()));  // X2
  if (nextSerial_ == BADID) renew(table_.size());
  table_.add({hashOf(record), nextSerial_});
  serials_.push_back(nextSerial_++);
}

// Another table of the same messages, which are numbered anew.
void SubscriptionIndex::renew(std::size_t size) {
  auto entries = std::make_unique<Entry[]>(size);
  IdIndex<Entry> table(entries.get(), size);
  for (std::size_t i = 0; i < table_.size(); ++i)
    if (const Entry& entry = entries_[i]; !entry.isFree())
      table.add({entry.hash, static_cast<std::uint32_t>(placeOf(entry) + 1)});
  entries_ = std::move(entries);
  table_ = table;
  nextSerial_ = 1;
  for (std::uint32_t& serial : serials_) serial = nextSerial_++;
}

void SubscriptionIndex::clear() {
  serials_ = {};
  entries_.reset();
  table_ = {};
}

}  // namespace kl
