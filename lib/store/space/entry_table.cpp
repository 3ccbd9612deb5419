// The place of the blob of each entry: a hash table without lists, which doubles when half of it is in use.  Held by
// StoreEntryTableSteps.AgreesWithAMap.

#include "store/space/entry_table.h"

#include <utility>

namespace kl {
namespace {

constexpr std::size_t kFirstRows = 16;

}  // namespace

void EntryTable::put(const Row& row) {
  if (2 * (used_ + 1) > rows_.size()) grow();
  Row* const found = index_.findOrFree(row.id());
  if (found->isFree()) ++used_;
  *found = row;
}

void EntryTable::erase(unsigned int id) {
  Row* const found = rows_.empty() ? nullptr : index_.find(id);
  if (found == nullptr) return;
  index_.remove(found);
  --used_;
}

void EntryTable::clear() {
  rows_.clear();
  index_ = {};
  used_ = 0;
}

void EntryTable::grow() {
  const std::vector<Row> before =
      std::exchange(rows_, std::vector<Row>(rows_.empty() ? kFirstRows : 2 * rows_.size()));
  index_ = IdIndex<Row>(rows_.data(), rows_.size());
  for (const Row& row : before)
    if (!row.isFree()) index_.add(row);
}

}  // namespace kl
