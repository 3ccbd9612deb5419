// The file is TOML: a table [loader], a table [rights], and one [[service]] for each service.  Every table is
// read through a Section, which remembers what was asked for: a key that nobody asked for is a mistake, so a
// misspelt key is never silently ignored.

#include "config/configuration.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "config/settings.h"
#include "config/speaks_for.h"
#include "kl/conventions.h"
#include "kl/utilities.h"
#include "services/common/section.h"

namespace loader {
namespace {

using common::Section;

constexpr long long kMostOfAResource = 1 << 30;

// Somebody who starts a service must know its user; without one a service that comes by itself cannot come.
void readUser(Section& section, ServiceConfiguration& service, Configuration& whole) {
  service.user = section.text("user", "");
  service.login = service.user.empty() ? whole.users.nameOf(::geteuid()) : service.user;
  if (service.user.empty()) return;
  if (const auto uid = whole.users.find(service.user)) {
    service.uid = *uid;
    service.groups = whole.users.groupsOf(service.user);
  } else if (!service.command.empty()) {
    section.expected("user", "the name of a user of this system");
  } else {
    whole.warnings.push_back(section.remark("user", "this system has nobody of that name"));
  }
}

void readOwnRights(Section& section, ServiceConfiguration& service, Configuration& whole) {
  if (section.find("rights") == nullptr) return;
  service.rights = readRights(section, "rights", {});
  service.rightsLine = section.lineOf("rights");
  if (service.user.empty() || service.uid == 0)
    whole.warnings.push_back(
        section.remark("rights", "never matches: root and the loader's own user may do everything anyway"));
}

// The `access` of a service or of the loader itself.
AccessList readAccess(Section& section, const std::string& name, Configuration& whole) {
  if (section.find("access") == nullptr) return {};
  Section table = section.table("access");
  return readAccessList(table, "access of " + name, whole.users, whole.warnings);
}

RestartRule readRestart(Section& section) {
  const std::string word = section.text("restart", "crash");
  if (word == "crash") return RestartRule::kAfterCrash;
  if (word == "always") return RestartRule::kAlways;
  if (word == "never") return RestartRule::kNever;
  section.expected("restart", "\"crash\", \"always\" or \"never\"");
  return RestartRule::kAfterCrash;
}

// With the loader, by the first message for it, or by nothing but an action.
void readStart(Section& section, ServiceConfiguration& service) {
  const toml::node* node = section.find("start");
  if (node == nullptr) return;
  const auto word = node->value_exact<std::string>();
  service.startsOnDemand = word && *word == "demand";
  service.startsAtBoot = !service.startsOnDemand && node->value_or(true);
  if (!node->is_boolean() && !service.startsOnDemand)
    section.expected(*node, "start", "true, false or \"demand\"");
}

// Only a service that the loader can start again may be started by a message, or be asked to leave.
void refuseWithoutCommand(Section& section, const ServiceConfiguration& service) {
  if (!service.command.empty()) return;
  if (service.startsOnDemand) section.mistake("expected a command: start is \"demand\"");
  if (service.leaveIdleSeconds > 0) section.mistake("expected a command: leave_idle_seconds is not 0");
  if (service.watchdogSeconds > 0) section.mistake("expected a command: watchdog_seconds is not 0");
  if (service.limits != ProcessLimits())
    section.mistake("expected a command: a process that the loader does not start has no limits of it");
}

unsigned int idOfName(Section& section, const std::string& name) {
  const unsigned int known = kl::findServiceID(name);
  if (!isConfigurable(known))
    section.mistake("expected an id: the name \"" + name + "\" is not one that the system has a number for");
  return known;
}

// The id, by number or by the name that the library knows it by.
unsigned int readId(Section& section, const std::string& name) {
  if (name.empty()) section.mistake("expected a name for this service");
  if (section.find("id") == nullptr) return name.empty() ? 0 : idOfName(section, name);
  const unsigned int id = section.number("id", 0u, 0, 0xffffffff);
  if (!isConfigurable(id))
    section.expected("id", "a service id: from 2 to 0xfffffffe, but not 0xff0001 to 0xff0003");
  return id;
}

ServiceConfiguration readService(Section& section, Configuration& whole) {
  ServiceConfiguration service;
  service.name = section.text("name", "");
  service.id = readId(section, service.name);
  service.command = section.texts("command", "a list of texts: the program and its arguments");
  readUser(section, service, whole);
  service.home = whole.users.homeOf(service.login);
  service.folder = section.text("folder", "");
  service.environment = section.textTable("environment");
  if (service.environment.contains("KL_ROOT"))
    section.mistake("environment", "expected no KL_ROOT: services have that of the loader");
  readOwnRights(section, service, whole);
  readSpeaksFor(section, service, whole);
  service.access = readAccess(section, service.name, whole);
  const ServiceNames names(whole.descriptions, service.name, section.mistakes());
  if (section.find("commands") != nullptr) service.commands = readCommands(section, names);
  service.restart = readRestart(section);
  readStart(section, service);
  service.startSeconds = section.number("start_seconds", whole.startSeconds, 0, 86400);
  service.leaveIdleSeconds = section.number("leave_idle_seconds", 0u, 0, 86400);
  service.watchdogSeconds = section.number("watchdog_seconds", 0u, 0, 86400);
  service.limits = readProcessLimits(section, service.userId() == 0, whole.warnings);
  refuseWithoutCommand(section, service);
  if (const toml::node* settings = section.find("settings"))
    service.settings = readSettings(section, *settings, names);
  section.refuseOthers();
  return service;
}

void readServices(Section& file, Configuration& configuration) {
  std::set<unsigned int> ids;
  std::set<std::string> names;
  for (Section& section : file.tables("service", "a table for each service, headed by [[service]]")) {
    ServiceConfiguration service = readService(section, configuration);
    if (!ids.insert(service.id).second && service.id != 0)
      section.mistake("expected an id of its own: another service has it");
    if (!names.insert(service.name).second)
      section.mistake("expected a name of its own: another service has it");
    configuration.services.push_back(std::move(service));
  }
}

void readMetrics(Section& section, Configuration& configuration) {
  MetricsSocket& metrics = configuration.metrics;
  metrics.isOn = section.boolean("metrics_socket", metrics.isOn);
  const std::string group = section.text("metrics_group", "");
  if (group.empty()) return;
  const auto gid = configuration.users.findGroupId(group);
  if (!gid) {
    metrics.isOn = false;  // rather than for another group
    configuration.warnings.push_back(
        section.remark("metrics_group", "this system has no such group, so there is no socket"));
    return;
  }
  metrics.group = *gid;
  if (!metrics.isOn)
    configuration.warnings.push_back(
        section.remark("metrics_group", "there is no socket for it: metrics_socket is not true"));
}

void readLoader(Section& file, Configuration& configuration) {
  Section section = file.table("loader");
  configuration.stateFolder = section.text("state_folder", configuration.stateFolder);
  configuration.descriptions = section.text("descriptions", configuration.descriptions);
  configuration.queueLimit = section.number("queue_limit", configuration.queueLimit, 4096, 16 * 1024 * 1024);
  configuration.startSeconds = section.number("start_seconds", configuration.startSeconds, 0, 86400);
  configuration.stallSeconds = section.number("stall_seconds", configuration.stallSeconds, 0, 86400);
  configuration.access = readAccess(section, "loader", configuration);
  readMetrics(section, configuration);
  section.refuseOthers();
}

void readAmounts(Section& quota, const std::string& who, Amounts& amounts) {
  Section section = quota.table(who);
  for (const ResourceRow& row : kResourceRows)
    amounts[row.resource] = section.number(std::string(row.key), amounts[row.resource],
                                           static_cast<long long>(row.least), kMostOfAResource);
  section.refuseOthers();
}

void readQuota(Section& file, Limits& limits) {
  Section section = file.table("quota");
  readAmounts(section, "user", limits.user);
  readAmounts(section, "all", limits.all);
  readAmounts(section, "reserve", limits.reserve);
  limits.registrations = section.number("registrations", limits.registrations, 1, 1000000);
  limits.registrationBurst = section.number("registration_burst", limits.registrationBurst, 1, 1000000);
  section.refuseOthers();
}

void readUserRights(Section& file, Configuration& configuration) {
  Section section = file.table("rights");
  configuration.rights = readAccessList(section, "rights", configuration.users, configuration.warnings);
}

}  // namespace

uid_t ServiceConfiguration::userId() const { return user.empty() ? ::geteuid() : uid; }

const ServiceConfiguration* Configuration::find(unsigned int id) const {
  const auto found = std::find_if(services.begin(), services.end(),
                                  [&](const ServiceConfiguration& service) { return service.id == id; });
  return found == services.end() ? nullptr : &*found;
}

const AccessList* Configuration::accessOf(unsigned int destination) const {
  const ServiceConfiguration* service = find(destination);
  const AccessList* list = nullptr;
  if (destination == kl::SERVICE_LOADER) list = &access;
  else if (service != nullptr) list = &service->access;
  return list == nullptr || list->empty() ? nullptr : list;
}

std::vector<unsigned int> Configuration::destinationsWithAccess() const {
  std::vector<unsigned int> ids;
  if (!access.empty()) ids.push_back(kl::SERVICE_LOADER);
  for (const ServiceConfiguration& service : services)
    if (!service.access.empty()) ids.push_back(service.id);
  return ids;
}

bool isConfigurable(unsigned int id) {
  return id > kl::SERVICE_LOADER && id != kl::BADID && (id < kl::PATH_ALL || id > kl::PATH_SELF);
}

Configuration defaultConfiguration() {
  Configuration configuration;
  configuration.stateFolder = kl::underRoot("/kelo/loader");
  configuration.descriptions = installedDescriptions();
  return configuration;
}

Configuration readConfiguration(const common::CommandLine& line, common::Mistakes& mistakes) {
  const auto text = line.readFile(mistakes);
  return text ? parseConfiguration(*text, line.file, mistakes) : defaultConfiguration();
}

Configuration parseConfiguration(const std::string& text, const std::string& file,
                                 common::Mistakes& mistakes) {
  Configuration configuration = defaultConfiguration();
  configuration.file = file;
  const auto table = common::parseToml(text, file, mistakes);
  if (!table) return configuration;
  Section whole(*table, "", file, mistakes);
  readLoader(whole, configuration);
  readQuota(whole, configuration.quota);
  readUserRights(whole, configuration);
  readServices(whole, configuration);
  whole.refuseOthers();
  return configuration;
}

}  // namespace loader
