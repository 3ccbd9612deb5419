// The records are flattened once, when a process registers; with every command they are only copied.

#include "admission/rights.h"

#include <algorithm>

#include "config/speaks_for.h"
#include "kl/conventions.h"
#include "kl/message.h"

namespace loader {
namespace {

constexpr std::size_t kMagicBytes = 2;

RightsRecords recordsOf(const kl::message& m) {
  RightsRecords records;
  m.flatten(records);
  records.erase(records.begin(), records.begin() + kMagicBytes);
  return records;
}

RightsRecords nameRecord(const std::string& user) {
  kl::message m;
  m.insert(kl::SYS_USER, user);
  return recordsOf(m);
}

SenderRights ordinaryRights(const Configuration& configuration, const Sender& sender) {
  const std::string user = configuration.users.nameOf(sender.uid);
  SenderRights result = equalRights(user, explain(configuration, sender, kl::BADID).rights);
  for (const unsigned int destination : configuration.destinationsWithAccess()) {
    const Rights rights = explain(configuration, sender, destination).rights;
    result.grants.push_back({rights, rightsRecords(user, rights)});
  }
  return result;
}

// The users of a gateway, each with the rights that he has himself.
std::shared_ptr<const UsersSpokenFor> spokenUsers(const Configuration& configuration,
                                                  const ServiceConfiguration& service) {
  const auto users = std::make_shared<UsersSpokenFor>();
  for (const uid_t uid : service.speaksFor) {
    if (!maySpeakFor(configuration, service, uid)) continue;
    const std::string name = configuration.users.nameOf(uid);
    SenderRights rights = ordinaryRights(configuration, {uid, nullptr});
    rights.user = nameRecord(name);
    users->add(name, std::move(rights));
  }
  return users;
}

}  // namespace

RightsRecords rightsRecords(const std::string& user, const Rights& rights) {
  kl::message m;
  m.insert(kl::SYS_USER, user);
  m.insert(kl::SYS_POLICY, rights.bits);
  return recordsOf(m);
}

SenderRights senderRights(const Configuration& configuration, const Sender& sender) {
  if (isTrusted(sender.uid)) return trustedRights(configuration.users.nameOf(sender.uid));
  SenderRights result = ordinaryRights(configuration, sender);
  const bool isGateway = sender.service != nullptr && !sender.service->speaksFor.empty();
  if (isGateway) result.speaksFor = spokenUsers(configuration, *sender.service);
  return result;
}

// The first grant of each sender is for the destinations without a list.
DestinationRules rulesFor(const Configuration& configuration, unsigned int id) {
  DestinationRules rules;
  const std::vector<unsigned int> lists = configuration.destinationsWithAccess();
  const auto own = std::find(lists.begin(), lists.end(), id);
  if (own != lists.end()) rules.accessList = static_cast<unsigned int>(own - lists.begin()) + 1;
  static const CommandRights ofLoader = loaderCommands();
  if (id == kl::SERVICE_LOADER) rules.commands = &ofLoader;
  const ServiceConfiguration* service = configuration.find(id);
  if (service != nullptr && service->commands) rules.commands = &*service->commands;
  return rules;
}

SenderRights trustedRights(const std::string& user) { return {true, nameRecord(user), {}}; }

SenderRights equalRights(const std::string& user, const Rights& rights) {
  return {false, {}, {{rights, rightsRecords(user, rights)}}};
}

}  // namespace loader
