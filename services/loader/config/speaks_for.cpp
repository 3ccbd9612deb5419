// Names become numbers here, when the configuration is read; a member of a group is spoken for under his own name.

#include "config/speaks_for.h"

#include "config/decision.h"

namespace loader {
namespace {

using common::Section;

bool mayDoEverything(const Configuration& configuration, const Sender& sender) {
  const Rights rights = explain(configuration, sender, kl::BADID).rights;
  return isTrusted(sender.uid) || (!rights.none && (rights.bits & kl::RIGHT_OF_NOBODY) != 0);
}

std::optional<std::vector<uid_t>> usersNamed(const std::string& name, Users& users) {
  if (name.starts_with('@')) return users.findGroup(name.substr(1));
  const auto uid = users.find(name);
  if (!uid) return {};
  return std::vector<uid_t>{*uid};
}

void refuseForThePowerful(Section& section, const ServiceConfiguration& service, const Configuration& whole) {
  if (service.user.empty() || isTrusted(service.userId()))
    section.mistake("speaks_for", "expected a user for this service, neither root nor the loader's own");
  else if (mayDoEverything(whole, {service.userId(), &service}))
    section.mistake("speaks_for", "expected a service without the right \"all\"");
}

// About a user for whom it does not speak although he stands in its list.
void warnAbout(Section& section, const std::string& name, uid_t uid, const ServiceConfiguration& service,
               Configuration& whole) {
  if (maySpeakFor(whole, service, uid)) return;
  const bool isOwn = uid == service.userId();
  whole.warnings.push_back(
      section.remark("speaks_for", name + (isOwn ? " is its own user, in whose name it asks anyway"
                                                 : " may do everything, so nobody speaks for him")));
}

}  // namespace

bool maySpeakFor(const Configuration& configuration, const ServiceConfiguration& service, uid_t uid) {
  return uid != service.userId() && !mayDoEverything(configuration, {uid, nullptr});
}

void readSpeaksFor(Section& section, ServiceConfiguration& service, Configuration& whole) {
  if (section.find("speaks_for") == nullptr) return;
  refuseForThePowerful(section, service, whole);
  for (const std::string& name : section.texts("speaks_for", "a list of users and groups (\"@group\")")) {
    const auto users = usersNamed(name, whole.users);
    if (!users)
      whole.warnings.push_back(section.remark("speaks_for", "this system has nobody of the name " + name));
    else if (!name.starts_with('@')) warnAbout(section, name, users->front(), service, whole);
    if (users) service.speaksFor.insert(service.speaksFor.end(), users->begin(), users->end());
  }
}

}  // namespace loader
