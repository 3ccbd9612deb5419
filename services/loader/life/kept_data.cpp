// A record of the store, under the service's id:
//
//     0x28000001  message  the data; absent when it left without
//     0x10000002  u64      the moment at which it was asked to leave
//     0x88000003  u32[]    the ids of the services that were there at that moment; absent without data
//     0x10000004  u64      the moment at which it had come; absent when it is not away
//     0x08000005  u32      the second since 1970 at which it is to be started; absent when it named none or is not away

#include "life/kept_data.h"

#include <algorithm>

#include "kl/field.h"
#include "kl/new_store.h"

namespace loader {
namespace {

constexpr kl::field<kl::message::flat_message> kData{0x28000001};
constexpr kl::field<unsigned long long> kSavedAt{0x10000002};
constexpr kl::field<std::vector<unsigned int>> kKnown{0x88000003};
constexpr kl::field<unsigned long long> kAwaySince{0x10000004};
constexpr kl::field<unsigned int> kWakeAt{0x08000005};

constexpr unsigned int kLifetime = 1;  // nothing here ever ages
constexpr unsigned int kLongestRecord = 65533;

}  // namespace

void KeptData::open() {
  store_.emplace(kl::newStore(path_), kLifetime);
  for (const auto& [id, entry] : store_->entries()) kept_[id] = keptOf(store_->get(id));
}

const Kept* KeptData::find(unsigned int id) const {
  const auto found = kept_.find(id);
  return found == kept_.end() ? nullptr : &found->second;
}

void KeptData::put(unsigned int id, Kept kept) {
  write(id, kept);
  kept_[id] = std::move(kept);
}

void KeptData::endAbsence(unsigned int id) {
  const auto found = kept_.find(id);
  if (found == kept_.end() || found->second.awaySince == 0) return;
  found->second.awaySince = 0;
  found->second.wakeAt = 0;
  if (!found->second.data.empty()) return write(id, found->second);
  kept_.erase(found);
  if (store_) (void)store_->remove(id);
}

unsigned long long KeptData::latest() const {
  unsigned long long latest = 0;
  for (const auto& [id, kept] : kept_) latest = std::max({latest, kept.savedAt, kept.awaySince});
  return latest;
}

void KeptData::flush() {
  if (store_) store_->doFlush();
}

// Data of an earlier leave must not come back after a restart, so a record that cannot be written leaves none.
void KeptData::write(unsigned int id, const Kept& kept) {
  if (!store_) return;
  const kl::message record = recordOf(kept);
  if (record.flattened().size() <= kLongestRecord) return store_->set(id, record);
  (void)store_->remove(id);
  log_.line("the data of service " + std::to_string(id) + " are too long for " + path_ +
            " and do not survive the loader");
}

kl::message recordOf(const Kept& kept) {
  kl::message record;
  if (!kept.data.empty()) {
    record.insert(kData, kl::message::flat_message(kept.data));
    record.insert(kKnown, kept.known);
  }
  record.insert(kSavedAt, kept.savedAt);
  if (kept.awaySince != 0) record.insert(kAwaySince, kept.awaySince);
  if (kept.wakeAt != 0) record.insert(kWakeAt, kept.wakeAt);
  return record;
}

Kept keptOf(const kl::message& record) {
  Kept kept;
  kept.data = record.get(kData, {});
  kept.savedAt = record.get(kSavedAt, 0);
  kept.known = record.get(kKnown, {});
  kept.awaySince = record.get(kAwaySince, 0);
  kept.wakeAt = record.get(kWakeAt, 0);
  return kept;
}

}  // namespace loader
