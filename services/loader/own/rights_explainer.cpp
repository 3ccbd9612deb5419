// An explanation takes three steps: whose requests are meant, what the configuration gives them at the destination, and
// whether that suffices for the command where the configuration says what it needs.

#include "own/rights_explainer.h"

#include "admission/rights.h"
#include "kl/chunk.h"
#include "kl/rights.h"
#include "kl/services.h"
#include "loader.kl.h"

namespace loader {
namespace {

constexpr std::size_t kMostPassed = 32;  // entries in an explanation

using Objects = std::vector<kl::message::flat_message>;

kl::message entryOf(const RuleReference& rule) {
  kl::message m;
  m.insert(loader_service::TABLE, rule.table);
  m.insert(loader_service::KEY, rule.key);
  if (rule.line != 0) m.insert(loader_service::LINE, rule.line);
  m.insert(loader_service::RIGHTS, wordsOf(rule.rights));
  return m;
}

bool mayControl(const kl::message& request) {
  return (request.get(kl::SYS_POLICY, kl::RIGHTS_ALL) & kl::RIGHT_CONTROL) != 0;
}

void addEntries(const AccessList& list, std::vector<RuleReference>& rules) {
  for (const AccessEntry& entry : list.entries)
    rules.push_back({list.name, entry.key, entry.line, entry.rights});
}

// The entries in the order in which they are asked, for requests to this service or to any.
std::vector<RuleReference> rulesOf(const Configuration& configuration, std::optional<unsigned int> service) {
  std::vector<RuleReference> rules;
  for (const unsigned int id : configuration.destinationsWithAccess())
    if (!service || *service == id) addEntries(*configuration.accessOf(id), rules);
  for (const ServiceConfiguration& sender : configuration.services)
    if (sender.rights)
      rules.push_back({"rights of " + sender.name, "rights", sender.rightsLine, *sender.rights});
  addEntries(configuration.rights, rules);
  return rules;
}

void addRules(kl::message& reply, const Decision& decision) {
  reply.insert(loader_service::RULE, entryOf(decision.rule).flattened());
  Objects passed;
  for (const RuleReference& rule : decision.passed)
    if (passed.size() < kMostPassed) passed.push_back(entryOf(rule).flattened());
  if (!passed.empty()) reply.insert(loader_service::PASSED, passed);
}

// The user of its process; one that does not run now will be that of its configured user.
uid_t userOf(const Service& service, const ServiceConfiguration* configured) {
  return service.isConnected() || configured == nullptr ? service.uid : configured->userId();
}

// Without a command the question is whether anything is delivered.
void addVerdict(kl::message& reply, const Rights& rights, const DestinationRules& rules,
                const kl::message& request) {
  const bool isListed = rules.commands != nullptr && request.has(loader_service::RIGHTS_COMMAND);
  const unsigned int command = request.get(loader_service::RIGHTS_COMMAND, kl::CMD_NOOP);
  if (isListed) {
    const auto need = rules.commands->find(command);
    reply.insert(loader_service::NEEDED, need != rules.commands->end() ? need->second : kl::RIGHT_OF_NOBODY);
  }
  const Access access = Access::decide(rights, command, isListed ? rules : DestinationRules());
  const unsigned int passes = isListed ? kl::RIGHTS_ALLOWED : kl::RIGHTS_OPEN;
  reply.insert(loader_service::VERDICT, access.isDenied() ? kl::RIGHTS_DENIED : passes);
}

}  // namespace

kl::message RightsExplainer::explain(const Service& caller, const kl::message& request) const {
  const std::string own = request.get(kl::SYS_USER, caller.user);
  const bool isOwn = request.get(loader_service::RIGHTS_USER, own) == own &&
                     request.get(loader_service::RIGHTS_SENDER, caller.id) == caller.id;
  if (!isOwn && !mayControl(request))
    return kl::errorMsg(kl::ERROR_NOTALLOWED, "who asks about others needs the right control for the loader");
  if (request.get(loader_service::RIGHTS_TO, {}).empty()) return kl::errorMsg(kl::ERROR_MISSING, "");
  if (const auto subject = subjectOf(caller, request)) return answer(*subject, request);
  return kl::errorMsg(kl::ERROR_UNKNOWNID,
                      "no user is called '" + request.get(loader_service::RIGHTS_USER, "") + "'");
}

// The entries from STD_GETALLID on.
kl::message RightsExplainer::list(const kl::message& request) const {
  std::optional<unsigned int> service;
  if (request.has(kl::STD_ID)) service = request.get(kl::STD_ID, kl::BADID);
  const std::vector<RuleReference> rules = rulesOf(configuration_, service);
  kl::Chunk chunk(0);
  for (unsigned int at = request.get(kl::STD_GETALLID, 0); at < rules.size(); ++at)
    if (!chunk.add(at, entryOf(rules[at]))) break;
  return chunk.reply();
}

// A process has the rights of its own only where it sends in its own user's name.
std::optional<RightsExplainer::Subject> RightsExplainer::subjectOf(const Service& caller,
                                                                   const kl::message& request) const {
  const unsigned int senderId = request.get(loader_service::RIGHTS_SENDER, caller.id);
  const Service* sender = table_.find(senderId);
  std::string user = request.get(loader_service::RIGHTS_USER, "");
  if (user.empty() && sender != nullptr) user = sender->user;
  const bool isSender = sender != nullptr && sender->user == user;
  const ServiceConfiguration* configured = configuration_.find(senderId);
  const Sender own{isSender ? userOf(*sender, configured) : kUnknownUser, configured};
  const bool isSpokenFor = request.has(loader_service::BITS) && !(isSender && !isTrusted(own.uid));
  if (isSender) return Subject{user, own, isSpokenFor};
  const auto uid = configuration_.users.known(user);
  if (!uid) return {};
  return Subject{user, {*uid, nullptr}, isSpokenFor};
}

kl::message RightsExplainer::answer(const Subject& subject, const kl::message& request) const {
  const unsigned int destination = request.get(loader_service::RIGHTS_TO, {}).front();
  Decision decision = loader::explain(configuration_, subject.sender, destination);
  const bool passesAll = isTrusted(subject.sender.uid) && !subject.isSpokenFor;
  if (subject.isSpokenFor) decision.rights.bits &= request.get(loader_service::BITS, 0);
  kl::message reply;
  reply.insert(loader_service::RIGHTS_USER, subject.user);
  if (!passesAll) reply.insert(loader_service::BITS, decision.rights.bits);
  if (!configuration_.file.empty()) reply.insert(loader_service::FILE, configuration_.file);
  addRules(reply, decision);
  if (passesAll) reply.insert(loader_service::VERDICT, kl::RIGHTS_ALLOWED);
  else addVerdict(reply, decision.rights, rulesFor(configuration_, destination), request);
  return reply;
}

}  // namespace loader
