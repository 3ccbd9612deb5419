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

struct Key {
  const char* name;
  bool differs;
};

std::string namesOf(std::initializer_list<Key> keys) {
  std::string names;
  for (const Key& key : keys)
    if (key.differs) names += (names.empty() ? "" : ", ") + std::string(key.name);
  return names;
}

bool isOtherUser(const ServiceConfiguration& one, const ServiceConfiguration& other) {
  return one.userId() != other.userId() || one.login != other.login || one.home != other.home ||
         (other.userId() != ::geteuid() && one.groups != other.groups);
}

// Those that concern the process.
std::string keysOfProcess(const ServiceConfiguration& one, const ServiceConfiguration& other) {
  const ProcessLimits& a = one.limits;
  const ProcessLimits& b = other.limits;
  return namesOf({{"user", isOtherUser(one, other)},
                  {"command", one.command != other.command},
                  {"folder", one.folder != other.folder},
                  {"environment", one.environment != other.environment},
                  {"settings", one.settings != other.settings},
                  {"memory", a.memory != b.memory},
                  {"files", a.files != b.files},
                  {"tasks", a.tasks != b.tasks},
                  {"nice", a.nice != b.nice},
                  {"oom_score", a.oomScore != b.oomScore},
                  {"umask", a.umask != b.umask},
                  {"capabilities", a.capabilities != b.capabilities},
                  {"new_privileges", a.mayGainPrivileges != b.mayGainPrivileges},
                  {"profile", a.profile != b.profile}});
}

// Those that concern the loader alone.
std::string keysOfLoader(const ServiceConfiguration& one, const ServiceConfiguration& other) {
  const bool isOtherStart =
      one.startsAtBoot != other.startsAtBoot || one.startsOnDemand != other.startsOnDemand;
  return namesOf({{"name", one.name != other.name},
                  {"rights", one.rights != other.rights},
                  {"speaks_for", one.speaksFor != other.speaksFor},
                  {"access", !isSame(one.access, other.access)},
                  {"commands", one.commands != other.commands},
                  {"restart", one.restart != other.restart},
                  {"start", isOtherStart},
                  {"start_seconds", one.startSeconds != other.startSeconds},
                  {"leave_idle_seconds", one.leaveIdleSeconds != other.leaveIdleSeconds},
                  {"watchdog_seconds", one.watchdogSeconds != other.watchdogSeconds}});
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

void addChange(Difference& difference, const ServiceConfiguration& former, const ServiceConfiguration& now) {
  const std::string process = keysOfProcess(former, now);
  const std::string loader = keysOfLoader(former, now);
  if (!process.empty()) {
    difference.restarted.push_back(now.name);
    difference.restartedKeys.push_back(process + (loader.empty() ? "" : ", ") + loader);
  } else if (!loader.empty()) {
    difference.adjusted.push_back(now.name);
    difference.adjustedKeys.push_back(loader);
  } else {
    ++difference.unchanged;
  }
}

void addService(Difference& difference, const ServiceConfiguration* former, const ServiceConfiguration& now) {
  if (former == nullptr || !isSuccessor(*former, now)) return difference.started.push_back(now.name);
  addChange(difference, *former, now);
}

// But for the keys that it reads when it starts.
bool isSameLoader(const Configuration& former, const Configuration& now) {
  return isSame(former.access, now.access) && former.metrics == now.metrics &&
         former.descriptions == now.descriptions;
}

void addSection(Difference& difference, const char* name) {
  difference.adjusted.emplace_back(name);
  difference.adjustedKeys.emplace_back();
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
  return !keysOfProcess(former, now).empty();
}

Difference differenceOf(const Configuration& former, const Configuration& now) {
  Difference difference;
  for (const ServiceConfiguration& service : former.services) {
    const ServiceConfiguration* successor = now.find(service.id);
    if (successor == nullptr || !isSuccessor(service, *successor)) difference.ended.push_back(service.name);
  }
  if (!isSame(former.rights, now.rights)) addSection(difference, "[rights]");
  if (!isSameLoader(former, now)) addSection(difference, "[loader]");
  for (const ServiceConfiguration& service : now.services)
    addService(difference, former.find(service.id), service);
  difference.later = keysForLater(former, now);
  return difference;
}

}  // namespace loader
