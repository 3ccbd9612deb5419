// Moments are counted, not measured: each asking and each beginning of a life is the next one.  The data that a
// service saved are stored with the moment of its asking and the ids of that moment; on its return the ids whose life
// began later, or that are gone, are what it has missed.

#include "life/leaving.h"

#include <utility>

#include "kl/services.h"

namespace loader {
namespace {

std::vector<unsigned char> dataIn(const Envelope& e) {
  kl::RecordWalk walk(e.body);
  for (kl::Record record; walk.next(record);)
    if (record.id() == kl::READY_DATA) return {record.payload().begin(), record.payload().end()};
  return {};
}

}  // namespace

unsigned long long Leaving::awaySince(unsigned int id) const {
  const Kept* kept = kept_.find(id);
  return kept != nullptr ? kept->awaySince : 0;
}

unsigned int Leaving::wakeAt(unsigned int id) const {
  const Kept* kept = kept_.find(id);
  return kept != nullptr ? kept->wakeAt : 0;
}

void Leaving::onAsked(const Service& service) { asked_[service.id] = {++now_, othersOf(service)}; }

// The data cover everything up to the moment the service was asked, so that moment is stored with them.
void Leaving::onSaved(const Service& service, const Envelope& e) {
  Asked asked = std::exchange(asked_[service.id], {});
  asked_.erase(service.id);
  std::vector<unsigned char> data = dataIn(e);
  if (data.empty()) asked.known.clear();
  kept_.put(service.id, {std::move(data), asked.at, std::move(asked.known), service.bornAt, service.wakeAt});
}

void Leaving::onLeft(const Service& service) {
  const auto asked = asked_.find(service.id);
  if (asked == asked_.end()) return;  // what it saved is kept
  kept_.put(service.id, {{}, asked->second.at, {}, service.bornAt, service.wakeAt});
  asked_.erase(asked);
}

void Leaving::onGone(const Service& service) {
  asked_.erase(service.id);
  kept_.endAbsence(service.id);
}

const Kept* Leaving::onRegistered(Service& service) {
  if (service.bornAt == 0) service.bornAt = ++now_;
  kept_.endAbsence(service.id);
  return kept_.find(service.id);
}

// L3
std::vector<unsigned int> Leaving::goneSince(const Kept& kept) const {
  std::vector<unsigned int> gone;
  for (const unsigned int id : kept.known) {
    const Service* service = table_.find(id);
    const bool isTheSame = service != nullptr && service->bornAt != 0 && service->bornAt <= kept.savedAt;
    if (!isTheSame) gone.push_back(id);
  }
  return gone;
}

std::vector<unsigned int> Leaving::othersOf(const Service& service) const {
  std::vector<unsigned int> ids;
  for (const auto& [id, other] : table_.all())
    if (other.get() != &service && other->bornAt != 0) ids.push_back(id);
  return ids;
}

}  // namespace loader
