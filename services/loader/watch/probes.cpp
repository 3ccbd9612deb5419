// The answer comes to a handler of the loader's own at which nobody else expects one.

#include "watch/probes.h"

#include "kl/conventions.h"
#include "kl/message.h"
#include "kl/services.h"

namespace loader {

// P1
bool Probes::ask(Service& service) {
  if (isOpen(service)) return true;
  kl::message question;
  question.insert(kl::SYS_TO, std::vector<unsigned int>());
  question.insert(kl::SYS_FROM, {kl::SERVICE_LOADER, kl::LOADER_REQUESTS});
  question.insert(kl::SYS_CMD, kl::CMD_NOOP);
  question.insert(kl::SYS_REPLYEXP, true);
  kl::setRequestID(question, ++last_);
  if (!outbox_.send(service, question, Urgency::kOrdinary)) return false;
  open_[service.id] = {last_, service.lastActive, messagesOf(service)};
  return true;
}

// P2.  The answer is one message more than there were.
bool Probes::onAnswer(Service& service, unsigned int requestId) {
  const auto found = open_.find(service.id);
  if (found == open_.end() || found->second.requestId != requestId) return false;
  if (messagesOf(service) == found->second.messages + 1) service.lastActive = found->second.activeBefore;
  open_.erase(found);
  return true;
}

}  // namespace loader
