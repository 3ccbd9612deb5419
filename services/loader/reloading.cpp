// The configuration is read anew by SIGHUP and by CMD_RELOAD.  It takes the place of the other one when the pass is
// over: until then a frame may be on its way whose sender or receiver would go.
//
// RL1  with a mistake in it nothing changes
// RL2  nobody but the services whose processes have to be others is restarted, and no connection of another one closes
// RL3  a row goes when its process has ended, and an id that was somebody's is given out again only then
// RL4  rights and rules are those of the configuration from the next frame on
//
// Held by Reloading.AMistakeLeavesEverythingAsItIs, Reloading.ServicesThatAreAsTheyWereDoNotNotice,
// Reloading.AServiceThatIsGoneEndsAndItsCallersAreAnswered and Reloading.RightsChangeFromTheNextRequestOn.

#include <unistd.h>

#include "admission/rights.h"
#include "config/missing_programs.h"
#include "kl/conventions.h"
#include "kl/utilities.h"
#include "life/markers.h"
#include "loader.h"
#include "loader.kl.h"

namespace loader {
namespace {

constexpr std::size_t kMostMistakes = 16;             // that are told at once
constexpr std::size_t kMostMistakeBytes = 32 * 1024;  // of a reply

using Names = std::vector<std::string>;

void insert(kl::message& m, kl::field<Names> field, const Names& names) {
  if (!names.empty()) m.insert(field, names);
}

kl::message replyOf(const Difference& difference) {
  kl::message reply;
  insert(reply, loader_service::STARTED, difference.started);
  insert(reply, loader_service::ENDED, difference.ended);
  insert(reply, loader_service::RESTARTED, difference.restarted);
  insert(reply, loader_service::RESTARTED_KEYS, difference.restartedKeys);
  insert(reply, loader_service::ADJUSTED, difference.adjusted);
  insert(reply, loader_service::ADJUSTED_KEYS, difference.adjustedKeys);
  insert(reply, loader_service::LATER, difference.later);
  reply.insert(loader_service::UNCHANGED, difference.unchanged);
  return reply;
}

std::string textOf(const common::Mistakes& mistakes) {
  std::string text;
  for (const common::Mistake& mistake : mistakes) {
    if (!text.empty()) text += '\n';
    text += mistake.describe();
  }
  if (text.size() > kMostMistakeBytes) text.replace(kMostMistakeBytes, text.npos, "...");
  return text;
}

void limitMistakes(common::Mistakes& mistakes) {
  if (mistakes.size() > kMostMistakes) mistakes.resize(kMostMistakes);
}

// A loader that runs goes by these until its end.
void keepWhatIsFixed(Configuration& next, const Configuration& former) {
  next.stateFolder = former.stateFolder;
  next.queueLimit = former.queueLimit;
  next.stallSeconds = former.stallSeconds;
  next.quota = former.quota;
}

}  // namespace

void Loader::onReloadSignal(int) {
  common::Mistakes mistakes;
  (void)readAnew(mistakes);
}

kl::message Loader::onReloadOrder(const kl::message& request) {
  if (request.has(loader_service::CANDIDATE)) return compare(request.get(loader_service::CANDIDATE, ""));
  common::Mistakes mistakes;
  const auto difference = readAnew(mistakes);
  return difference ? replyOf(*difference) : kl::errorMsg(kl::ERROR_FAILED, textOf(mistakes));
}

// Nothing is changed here, and nothing is a line on the log.
kl::message Loader::compare(const std::string& candidate) const {
  common::Mistakes mistakes;
  Configuration next = parseConfiguration(candidate, "the candidate", mistakes);
  if (mistakes.empty()) addMissingPrograms(next, mistakes);
  limitMistakes(mistakes);
  if (!mistakes.empty()) return kl::errorMsg(kl::ERROR_FAILED, textOf(mistakes));
  return replyOf(differenceOf(configuration_, next));
}

// RL1
std::optional<Difference> Loader::readAnew(common::Mistakes& mistakes) {
  if (isEnding_ || !source_) {
    mistakes.push_back({"kl-loader", 0, isEnding_ ? "is ending" : "has no configuration file"});
    return {};
  }
  Configuration next = source_(mistakes);
  if (next.file.empty() && !configuration_.file.empty())
    mistakes.push_back({configuration_.file, 0, "is not there any more"});
  limitMistakes(mistakes);
  for (const common::Mistake& mistake : mistakes) log_.line(mistake.describe());
  if (!mistakes.empty()) {
    log_.line("keeps its configuration, as the new one has mistakes");
    return {};
  }
  for (const common::Mistake& warning : next.warnings) log_.line(warning.describe());
  const Difference difference = differenceOf(configuration_, next);
  log_.line("has read its configuration anew: " + difference.describe());
  for (const std::string& key : difference.later) log_.line(key + ": changes when the loader starts");
  next_ = std::move(next);
  return difference;
}

// Everything refers to configuration_, so the new one moves in there.  The services of the former one stay where they
// are in memory, for processes that were started by it.
void Loader::applyNext() {
  keepWhatIsFixed(*next_, configuration_);
  former_.push_back(std::exchange(configuration_, std::move(*next_)));
  next_.reset();
  removeStrangeMarkers(configuration_, kl::runFolderPath(), log_);
  measureAnew();
  const MetricsSocket& metrics = configuration_.metrics;
  if (former_.back().metrics != metrics || metrics_.isOpen() != metrics.isOn) openMetrics();
  for (const ServiceConfiguration& former : former_.back().services) reconfigure(former);
  for (const ServiceConfiguration& service : configuration_.services) {
    const Service* row = table_.find(service.id);
    if (row == nullptr || !row->isConfigured || row->isDismissed) awaited_.insert(service.id);
  }
}

// RL4
void Loader::measureAnew() {
  for (const auto& [id, service] : table_.all()) {
    service->rules = rulesFor(configuration_, id);
    const bool isPeer = service->isConnected() && id != kl::SERVICE_LOADER;
    if (isPeer) service->rights = senderRights(configuration_, {service->uid, configuration_.find(id)});
  }
}

// RL2
void Loader::reconfigure(const ServiceConfiguration& former) {
  Service* row = table_.find(former.id);
  if (row == nullptr || !row->isConfigured || row->isDismissed) return;  // it waits for the id
  Service& service = *row;
  const ServiceConfiguration* now = configuration_.find(former.id);
  if (now == nullptr || !isSuccessor(former, *now)) {
    watchdog_.watch(former.id, 0);
    return lifecycle_.dismiss(service);
  }
  watchdog_.watch(former.id, now->watchdogSeconds);
  const bool isRenamed = service.name != now->name;
  service.name = now->name;
  if (!service.isConnected()) service.user = configuration_.users.nameOf(now->userId());
  lifecycle_.reconfigure(service, *now, needsRestart(former, *now));
  if (isRenamed) table_.setState(service, service.state);
}

// RL3.  An unconfigured process that has the id of a service makes room for it.
void Loader::addAwaited() {
  lifecycle_.forgetDismissed();
  if (!lifecycle_.hasDismissed()) former_.clear();
  for (auto at = awaited_.begin(); at != awaited_.end();) {
    const ServiceConfiguration* configured = configuration_.find(*at);
    Service* row = table_.find(*at);
    if (configured != nullptr && row != nullptr && !row->isConfigured) {
      disconnect(*row);
      row = table_.find(*at);
    }
    if (configured != nullptr && row != nullptr) {
      ++at;
      continue;
    }
    if (configured != nullptr && !isEnding_) {
      addConfigured(*configured);
      lifecycle_.begin(*table_.find(*at));
    }
    at = awaited_.erase(at);
  }
}

}  // namespace loader
