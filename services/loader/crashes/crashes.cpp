// A crash is kept at once, with its place in the program, and once more when that has a name.  One that happened before
// has its name already.

#include "crashes/crashes.h"

#include <chrono>
#include <utility>

#include "crashes/crash.h"
#include "crashes/death.h"
#include "crashes/secrets.h"

namespace loader {
namespace {

unsigned long long nowNs() {
  using namespace std::chrono;
  return static_cast<unsigned long long>(
      duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count());
}

std::string endOf(const Crash& crash, const std::string& where) {
  return "killed by " + signalName(crash.signal) + (where.empty() ? "" : " in " + where);
}

}  // namespace

void Crashes::add(const Crashed& crashed) {
  const Crash crash = readCrash(crashed.report, crashed.program);
  const Frame* const place = crash.place();
  KeptCrash kept{.time = nowNs(),
                 .service = crashed.service,
                 .serviceId = crashed.serviceId,
                 .pid = static_cast<unsigned int>(crashed.pid),
                 .signal = signalName(crash.signal),
                 .where = place != nullptr && !place->isInProgram ? place->text() : "",
                 .program = crashed.program.path,
                 .buildId = crashed.program.buildId,
                 .key = crash.key(crashed.program.buildId)};
  const unsigned int id =
      store_.add(std::move(kept), {withoutSecrets(crashed), lastMessages_(crashed.serviceId)});
  const KeptCrash* const stored = store_.find(id);
  const std::string known = stored != nullptr ? stored->where : "";
  if (!known.empty() || place == nullptr || !place->isInProgram)
    return tell(crashed, id, endOf(crash, known));
  const Place asked{crashed.program.path, crashed.program.buildId, place->offset, crashed.user,
                    crashed.groups};
  symbols_.ask(asked, [this, crashed, crash, id](const std::string& name) {
    const std::string where = name.empty() ? crash.place()->text() : name;
    store_.setWhere(id, where);
    tell(crashed, id, endOf(crash, where));
  });
}

// Of the service itself, and of those whose messages it was at work on.
std::string Crashes::withoutSecrets(const Crashed& crashed) const {
  std::set<std::string> names = secrets_(crashed.serviceId);
  for (const unsigned int sender : sendersIn(crashed.report)) names.merge(secrets_(sender));
  return maskSecrets(crashed.report, names);
}

void Crashes::tell(const Crashed& crashed, unsigned int id, const std::string& end) {
  const KeptCrash* const kept = store_.find(id);
  std::string line = crashed.service + " (" + std::to_string(crashed.serviceId) + ", pid " +
                     std::to_string(crashed.pid) + "): " + end;
  if (kept != nullptr) line += "; crash " + std::to_string(id);
  if (kept != nullptr && kept->times > 1) line += ", for the " + std::to_string(kept->times) + ". time";
  log_.line(line);
  onNamed_(crashed, end);
}

}  // namespace loader
