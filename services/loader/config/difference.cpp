// Two configurations are compared by what they mean.  The lines of entries are none of it: a comment moves them.

#include "config/difference.h"

#include <unistd.h>

#include <algorithm>

namespace loader {
namespace {

bool isSame(const AccessList& one, const AccessList& other) {
  return std::equal(one.entries.begin(), one.entries.end(), other.entries.begin(), other.entries.end(),
                    [](const AccessEntry& a, const AccessEntry& b) {
                      return a.kind == b.kind && a.key == b.key && a.rights == b.rights && a.users == b.users;
                    });
}

bool isSameForLoader(const ServiceConfiguration& one, const ServiceConfiguration& other) {
  return one.name == other.name && one.rights == other.rights && one.speaksFor == other.speaksFor &&
         isSame(one.access, other.access) && one.commands == other.commands && one.restart == other.restart &&
         one.startsAtBoot == other.startsAtBoot && one.startsOnDemand == other.startsOnDemand &&
         one.startSeconds == other.startSeconds && one.leaveIdleSeconds == other.leaveIdleSeconds &&
         one.watchdogSeconds == other.watchdogSeconds;
}

// The keys that a running loader goes by until its end.
std::vector<std::string> keysForLater(const Configuration& former, const Configuration& now) {
  std::vector<std::string> keys;
  if (former.stateFolder != now.stateFolder) keys.emplace_back("loader.state_folder");
  if (former.queueLimit != now.queueLimit) keys.emplace_back("loader.queue_limit");
  if (former.stallSeconds != now.stallSeconds) keys.emplace_back("loader.stall_seconds");
  if (former.quota != now.quota) keys.emplace_back("quota");
  return keys;
}

void addService(Difference& difference, const ServiceConfiguration* former, const ServiceConfiguration& now) {
  if (former == nullptr || !isSuccessor(*former, now)) difference.started.push_back(now.name);
  else if (needsRestart(*former, now)) difference.restarted.push_back(now.name);
  else if (!isSameForLoader(*former, now)) difference.adjusted.push_back(now.name);
  else ++difference.unchanged;
}

void append(std::string& text, std::size_t count, const char* what) {
  if (count == 0) return;
  if (!text.empty()) text += ", ";
  text += std::to_string(count);
  text += what;
}

}  // namespace

std::string Difference::describe() const {
  std::string text;
  append(text, started.size(), " started");
  append(text, ended.size(), " ended");
  append(text, restarted.size(), " restarted");
  append(text, adjusted.size(), " adjusted");
  append(text, unchanged, " unchanged");
  append(text, later.size(), " for the next start of the loader");
  return text.empty() ? "no services" : text;
}

bool isSuccessor(const ServiceConfiguration& former, const ServiceConfiguration& now) {
  return former.id == now.id && former.command.empty() == now.command.empty();
}

bool needsRestart(const ServiceConfiguration& former, const ServiceConfiguration& now) {
  const bool isOtherUser =
      former.userId() != now.userId() || (now.userId() != ::geteuid() && former.groups != now.groups);
  return isOtherUser || former.command != now.command || former.folder != now.folder ||
         former.environment != now.environment || former.settings != now.settings ||
         former.limits != now.limits;
}

Difference differenceOf(const Configuration& former, const Configuration& now) {
  Difference difference;
  for (const ServiceConfiguration& service : former.services) {
    const ServiceConfiguration* successor = now.find(service.id);
    if (successor == nullptr || !isSuccessor(service, *successor)) difference.ended.push_back(service.name);
  }
  if (!isSame(former.rights, now.rights)) difference.adjusted.emplace_back("[rights]");
  if (!isSame(former.access, now.access) || former.metrics != now.metrics)
    difference.adjusted.emplace_back("[loader]");
  for (const ServiceConfiguration& service : now.services)
    addService(difference, former.find(service.id), service);
  difference.later = keysForLater(former, now);
  return difference;
}

}  // namespace loader
