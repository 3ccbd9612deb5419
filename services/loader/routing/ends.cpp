// An end is kept as the id and the acquaintances of the service, whose row may be gone when the pass is over.  What it sent
// is forgotten at once: who got anything from a stranger is its acquaintance, or the loader.

#include "routing/ends.h"

#include <algorithm>
#include <utility>

#include "kl/conventions.h"
#include "kl/services.h"

namespace loader {
namespace {

using Ids = std::vector<unsigned int>;

kl::message noticeOf(unsigned int endedId) {
  kl::message m;
  m.insert(kl::SYS_TO, Ids());
  m.insert(kl::SYS_FROM, Ids{endedId});
  m.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED);
  return m;
}

}  // namespace

void Ends::add(const Service& ended) {
  const bool isForAll = ended.isConfigured || ended.acquaintances.isEverybody();
  ended_.push_back({ended.id, ended.isConfigured, isForAll, isForAll ? Ids() : ended.acquaintances.ids()});
  if (!ended.isConfigured) forgetSent(ended);
}

void Ends::announce() {
  if (ended_.empty()) return;
  const std::vector<Ended> all = std::exchange(ended_, {});
  const bool anyForAll = std::any_of(all.begin(), all.end(), [](const Ended& e) { return e.isForAll; });
  const std::vector<Service*> others = anyForAll ? everybody() : std::vector<Service*>();
  for (const Ended& ended : all) {
    const kl::message notice = noticeOf(ended.id);
    if (ended.isForAll)
      for (Service* to : others) notify(*to, ended, notice);
    else
      for (const unsigned int id : ended.acquaintances)
        if (Service* to = table_.find(id)) notify(*to, ended, notice);
  }
}

void Ends::report(Service& to, unsigned int endedId) {
  (void)outbox_.send(to, noticeOf(endedId), Urgency::kNotice);
}

void Ends::forgetSent(const Service& ended) const {
  if (Service* loader = table_.find(kl::SERVICE_LOADER)) loader->senders.forget(ended.id);
  if (ended.acquaintances.isEverybody())
    for (const auto& [id, service] : table_.all()) service->senders.forget(ended.id);
  for (const unsigned int id : ended.acquaintances.ids())
    if (Service* to = table_.find(id)) to->senders.forget(ended.id);
}

std::vector<Service*> Ends::everybody() const {
  std::vector<Service*> services;
  services.reserve(table_.all().size());
  for (const auto& [id, service] : table_.all())
    if (service->isConnected() || !service->held.empty()) services.push_back(service.get());
  return services;
}

// A service that is not running gets the notice after any held message from the ended one, which may be a
// subscription.  The id of a configured service stays an acquaintance: somebody may wait for its next process already.
void Ends::notify(Service& to, const Ended& ended, const kl::message& notice) {
  if (!ended.isConfigured) to.acquaintances.forget(ended.id);
  if (to.isConnected() || to.held.hasMessageOf(ended.id)) (void)outbox_.send(to, notice, Urgency::kNotice);
}

}  // namespace loader
