// The store's entries: under 0 the counter, under each other id the record of that id, without STD_ID.
//
// R1  makers_ and parts_ have exactly the ids of the records in the store
// R2  nextId_ is greater than every id that was ever given, until it has come round after four billion records

#include "records.h"

#include <algorithm>
#include <vector>

#include "kl/conventions.h"
#include "kl/message_view.h"
#include "kl/new_store.h"
#include "undo.kl.h"

namespace undo {
namespace {

constexpr unsigned int kCounter = 0;
constexpr unsigned int kLifetime = 1;  // nothing here ages
constexpr kl::field<unsigned int> kNextId{0x08000001};

unsigned int makerOf(const kl::message& record) {
  const auto source = record.view_u32_array(undo_service::SOURCE);
  return source.empty() ? kl::BADID : source.front();
}

}  // namespace

Records::Records(const std::string& folder) : store_(kl::newStore(folder + "/records"), kLifetime) { load(); }

void Records::load() {
  std::vector<unsigned int> unreadable;
  for (const auto& [id, entry] : store_.entries()) {
    if (id == kCounter) continue;
    const kl::message record = store_.get(id);
    if (makerOf(record) == kl::BADID) unreadable.push_back(id);
    else note(id, record);
    nextId_ = std::max(nextId_, id + 1);
  }
  for (const unsigned int id : unreadable) store_.remove(id);  // R1
  nextId_ = std::max(nextId_, store_.get(kCounter).get(kNextId, 1));
}

kl::message Records::get(unsigned int id) {
  if (!makers_.contains(id)) return {};
  kl::message record = store_.get(id);
  record.insert(kl::STD_ID, id);
  return record;
}

unsigned int Records::add(kl::message record) {
  record.remove(kl::STD_ID);
  const unsigned int id = takeId();
  return write(id, record) ? id : kl::BADID;
}

bool Records::replace(unsigned int id, const kl::message& record) {
  kl::message stored(record);
  stored.remove(kl::STD_ID);
  if (write(id, stored)) return true;
  remove(id);
  return false;
}

void Records::remove(unsigned int id) {
  if (makers_.erase(id) == 0) return;
  parts_.remove(id);
  store_.remove(id);
}

// R1
void Records::note(unsigned int id, const kl::message& record) {
  makers_[id] = makerOf(record);
  parts_.add(id, {record.get(undo_service::REPORTER, ""), record.get(undo_service::USER, "")});
}

bool Records::write(unsigned int id, const kl::message& record) {
  kl::message::flat_message bytes;
  record.flatten(bytes);
  if (bytes.size() > kMostBytes) return false;
  store_.set(id, record);
  if (!store_.entries().contains(id)) return false;
  note(id, record);
  return true;
}

// The counter is written first: a crash between the two loses an id and never gives one twice.  When it comes round,
// the old records would be newer than the new ones, so they go.
unsigned int Records::takeId() {
  if (nextId_ >= kl::BADID - 1) {
    while (!makers_.empty()) remove(makers_.begin()->first);
    nextId_ = 1;
  }
  const unsigned int id = nextId_++;
  kl::message counter;
  counter.insert(kNextId, nextId_);
  store_.set(kCounter, counter);
  return id;
}

}  // namespace undo
