// A registration takes three steps: which id it asks for, why it may not have that, and what the row of the service
// shows of its process from now on.

#include "admission/registration.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "admission/rights.h"
#include "config/configuration.h"
#include "services/common/text.h"
#include "services/common/version.h"

namespace loader {
namespace {

// Finds the values of a registration; false when there are not even an id and a version.
bool readHello(const Envelope& hello, unsigned int& id) {
  kl::RecordWalk walk(hello.body);
  for (kl::Record record; walk.next(record);) {
    if (record.id() != kl::REGISTRATION_VALUES || record.count() < 2) continue;
    id = record.u32At(0);
    return true;
  }
  return false;
}

// The process that the loader started for a service, be it within its connection or at the socket.
bool isProcessOf(const Applicant& who, const Service& service) {
  return who.startedAs == &service || (service.pid > 0 && service.pid == who.pid);
}

// A process chooses this name itself, and it goes into the log and onto terminals.
std::string programName(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  return std::getline(in, name) ? common::printable(name) : "unknown";
}

}  // namespace

Service* Registration::admit(const Applicant& who, const Envelope& hello, std::string& refusal) {
  unsigned int id = 0;
  if (!readHello(hello, id)) {
    refusal = "registers without its values";
    return nullptr;
  }
  const bool isPicked = id == 0 && who.startedAs == nullptr;
  if (id == 0) id = isPicked ? pickId(who) : who.startedAs->id;
  if (id == 0) {
    refusal = "asks for any id, and all have been given out within a day";
    return nullptr;
  }
  refusal = isPicked ? std::string() : whyNot(who, id);
  if (!refusal.empty()) return nullptr;
  Service* known = table_.find(id);
  Service& service = known != nullptr ? *known : table_.add(id);
  fill(service, who);
  return &service;
}

uid_t Registration::userOf(const Service& service) const {
  const ServiceConfiguration* configured = configuration_.find(service.id);
  return configured == nullptr ? ::geteuid() : configured->userId();
}

kl::message Registration::readyMessage(const Service& service, const std::vector<unsigned char>& data) const {
  kl::message m;
  m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  m.insert(kl::SYS_CTRL, kl::CTRL_READY);
  m.insert(kl::READY_ID, service.id);
  m.insert(kl::READY_VERSION, common::versionWord());
  m.insert(kl::READY_STARTS, service.starts);
  if (!data.empty()) m.insert(kl::READY_DATA, kl::message::flat_message(data));
  const ServiceConfiguration* configured = configuration_.find(service.id);
  if (configured != nullptr && !configured->settings.empty())
    m.insert(kl::READY_CONFIGURATION, kl::message::flat_message(configured->settings));
  return m;
}

std::string Registration::whyNot(const Applicant& who, unsigned int id) const {
  const std::string asked = "asks for the id " + std::to_string(id) + ", which ";
  if (!isConfigurable(id)) return asked + "is never given";
  if (who.startedAs != nullptr && who.startedAs->id != id) return asked + "is not the one configured for it";
  const Service* service = table_.find(id);
  if (service != nullptr && service->isConnected()) return asked + service->name + " has";
  const std::string reason = service != nullptr && service->isConfigured ? whyNotConfigured(who, *service)
                                                                         : whyNotUnconfigured(who, id);
  return reason.empty() ? reason : asked + reason;
}

std::string Registration::whyNotConfigured(const Applicant& who, const Service& service) const {
  if (service.state == kl::SVC_STATE_LEAVING) return "is leaving";
  if (isProcessOf(who, service)) return {};
  if (service.isDismissed) return "is not configured any more";
  const ServiceConfiguration* configured = configuration_.find(service.id);
  const std::string owner = "is configured for " + service.name;
  if (service.pid > 0) return owner + ", whose process runs";
  if (configured != nullptr && who.uid != configured->userId()) return owner + " and not for this user";
  return {};
}

// The ids of others would lead what is meant for them to a stranger.
std::string Registration::whyNotUnconfigured(const Applicant& who, unsigned int id) const {
  if (id >= IdCounter::kFirst && id <= IdCounter::kLast) return "is for the loader to pick";
  return isTrusted(who.uid) ? std::string() : "nobody is configured for";
}

// 0 when there is none for an ordinary user.  There are more ids than a machine has descriptors.
unsigned int Registration::pickId(const Applicant& who) {
  const bool mayComeEarly = isTrusted(who.uid);
  unsigned int id = ids_.next(mayComeEarly);
  while (id != 0 && table_.find(id) != nullptr) id = ids_.next(mayComeEarly);
  return id;
}

void Registration::fill(Service& service, const Applicant& who) {
  if (!isProcessOf(who, service)) ++service.starts;
  service.pid = who.pid;
  service.uid = who.uid;
  service.user = configuration_.users.nameOf(who.uid);
  service.leaveValue = 0;  // a new process has yet to declare that it may leave
  service.wantsToLeave = false;
  if (service.name.empty()) service.name = programName(who.pid);
  service.rights = senderRights(configuration_, {who.uid, configuration_.find(service.id)});
}

}  // namespace loader
