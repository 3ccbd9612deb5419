#include "life/leaving.h"

namespace loader {
namespace {

constexpr char kDoesNotRun[] = "the service does not run";
constexpr char kMayNot[] = "the service does not let itself be asked to leave now";

constexpr char kReadsNothing[] = "the service reads nothing";

kl::message leaveRequest() {
  kl::message m;
  m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  m.insert(kl::SYS_CTRL, kl::CTRL_LEAVE);
  return m;
}

std::vector<unsigned char> dataIn(const Envelope& e) {
  kl::RecordWalk walk(e.body);
  for (kl::Record record; walk.next(record);)
    if (record.id() == kl::READY_DATA) return {record.payload().begin(), record.payload().end()};
  return {};
}

}  // namespace

// A service that nobody configures any more is nobody's to start; what it saved stays for the day when somebody
// does.
void Leaving::restore() {
  now_ = kept_.latest();
  for (const auto& [id, kept] : kept_.all()) {
    Service* service = table_.find(id);
    if (kept.awaySince == 0 || service == nullptr || service->configuration->command.empty()) continue;
    service->bornAt = kept.awaySince;
    service->state = kl::SVC_STATE_LEFT;
  }
}

const char* Leaving::ask(Service& service) {
  if (service.state != kl::SVC_STATE_RUNNING) return kDoesNotRun;
  if (service.leaveValue == 0) return kMayNot;
  if (!outbox_.send(service, leaveRequest(), Urgency::kReply)) return kReadsNothing;
  asked_[service.id] = {++now_, othersOf(service), false};
  service.wantsToLeave = false;
  table_.setState(service, kl::SVC_STATE_LEAVING);  // L1
  return nullptr;
}

// A process that ended in order without a word had nothing to save.  One that crashed did not leave, unless it
// had already handed over its data.
bool Leaving::hasLeft(Service& service, bool crashed) {
  const bool hasSaved = asked_[service.id].hasSaved;
  if (crashed && !hasSaved) return false;
  if (!hasSaved) kept_.put(service.id, {{}, asked_[service.id].at, {}, service.bornAt});
  asked_.erase(service.id);
  service.isAwaited = true;
  return true;
}

const Kept* Leaving::comes(Service& service) {
  if (service.bornAt == 0) service.bornAt = ++now_;
  kept_.back(service.id);
  return kept_.find(service.id);
}

// L3
std::vector<unsigned int> Leaving::endedSince(const Kept& kept) const {
  std::vector<unsigned int> ended;
  for (const unsigned int id : kept.known) {
    const Service* service = table_.find(id);
    const bool isTheSame = service != nullptr && service->bornAt != 0 && service->bornAt <= kept.savedAt;
    if (!isTheSame) ended.push_back(id);
  }
  return ended;
}

void Leaving::leaveMessage(Service& sender, const Envelope& e) {
  switch (e.control) {
    case kl::CTRL_LEAVE_VALUE: return readiness(sender, e.controlArgument);
    case kl::CTRL_WANT_LEAVE: return wishes(sender);
    case kl::CTRL_REFUSED: return refused(sender);
    case kl::CTRL_LEFT: return saved(sender, e);
    default: break;
  }
}

void Leaving::readiness(Service& service, unsigned int value) {
  service.leaveValue = value;
  host_.readinessChanged(service);
  if (service.wantsToLeave) wishes(service);
}

// A wish that comes while something blocks the leave is kept until nothing does.
void Leaving::wishes(Service& service) {
  service.wantsToLeave = service.leaveValue == 0;
  if (!service.wantsToLeave) host_.wishesToLeave(service);
}

void Leaving::refused(Service& service) {
  if (service.state != kl::SVC_STATE_LEAVING || asked_[service.id].hasSaved) return;
  asked_.erase(service.id);
  service.isDemanded = false;
  log_.line(describe(service) + ": refuses to leave");
  table_.setState(service, kl::SVC_STATE_RUNNING);
  outbox_.release(service);
  requests_.release(service);
  host_.refusedToLeave(service);
}

// What it was told before it was asked is in its data, what came later is not: hence the moment of the asking.
void Leaving::saved(Service& service, const Envelope& e) {
  Asked& asked = asked_[service.id];
  if (service.state != kl::SVC_STATE_LEAVING || asked.hasSaved) return;
  asked.hasSaved = true;
  std::vector<unsigned char> data = dataIn(e);
  if (data.empty()) asked.known.clear();
  kept_.put(service.id, {std::move(data), asked.at, std::move(asked.known), service.bornAt});
  host_.saidThatItLeaves(service);
}

std::vector<unsigned int> Leaving::othersOf(const Service& service) const {
  std::vector<unsigned int> ids;
  for (const auto& [id, other] : table_.all())
    if (other.get() != &service && other->bornAt != 0) ids.push_back(id);
  return ids;
}

}  // namespace loader
