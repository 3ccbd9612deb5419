// Commands are named as the descriptions of the two services do; the loader is asked for numbers.

#include "verbs/tapping.h"

#include <map>
#include <vector>

#include "ask/events.h"
#include "ask/session.h"
#include "ask/tap.h"
#include "services/common/tap.h"
#include "values/failure.h"
#include "values/similar.h"
#include "verbs/resolve.h"

namespace klctl {
namespace {

namespace tap = common::tap;

constexpr std::chrono::milliseconds kBatch(100);  // twice what the loader gathers
constexpr std::chrono::milliseconds kMostRest(1000);

// Those of the description of a service, by name.
void addCommands(const CommandLine& line, const std::string& service,
                 std::map<std::string, unsigned int>& all) {
  if (service.empty()) return;
  const auto description = dictionaryFor(line, service).description;
  if (!description) return;
  for (const auto& object : description->objects)
    for (const auto& command : object.commands) all.emplace(command.name, command.code);
}

unsigned int commandFor(const CommandLine& line) {
  if (const auto known = parseCommand(line.trace.command)) return *known;
  std::map<std::string, unsigned int> described;
  addCommands(line, line.trace.service, described);
  addCommands(line, line.trace.peer, described);
  const auto found = described.find(line.trace.command);
  if (found != described.end()) return found->second;
  std::vector<std::string> names;
  for (const auto& [name, code] : described) names.push_back(name);
  throw usage("there is no command '" + line.trace.command + "'" + didYouMean(line.trace.command, names));
}

void takeEvent(const Event& event, const TapReader& reader) {
  if (event.kind == EventKind::kLost) throw refused("loader", kl::message(event.content), tap::CMD_TAP);
  if (event.kind == EventKind::kComplete) reader.begin();
  else reader.take(kl::message(event.content));
}

// Messages that passed before the user had enough may still wait for the end of their batch.  In a flood there is always
// another one.
void takeRest(StreamSession& stream, const TapReader& reader) {
  const auto begin = std::chrono::steady_clock::now();
  const Deadline deadline = begin + kBatch;
  const auto hasTime = [&] { return std::chrono::steady_clock::now() < begin + kMostRest; };
  for (kl::message m; !reader.isEnough() && hasTime() && stream.next(m, deadline) == StreamSession::kArrived;)
    takeEvent(eventOf(m), reader);
}

}  // namespace

kl::message tapRequest(const CommandLine& line, const Exchange& exchange) {
  kl::message m;
  m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  if (!line.trace.command.empty()) m.insert(tap::COMMAND, commandFor(line));
  if (!line.trace.service.empty()) m.insert(tap::SERVICES, {resolveId(line.trace.service, exchange)});
  if (!line.trace.peer.empty()) m.insert(tap::PEER, resolveId(line.trace.peer, exchange));
  if (line.trace.errorsOnly) m.insert(tap::ERRORS, true);
  if (line.trace.slowMs != 0) m.insert(tap::SLOW, line.trace.slowMs);
  return m;
}

std::string tapWish(const CommandLine& line) {
  const TraceWords& words = line.trace;
  std::string text = words.errorsOnly ? "errors" : words.slowMs != 0 ? "replies" : "messages";
  if (words.service.empty()) text += " of all services";
  else if (words.peer.empty()) text += " of " + words.service;
  else text += " between " + words.service + " and " + words.peer;
  if (!words.command.empty()) text += ", command " + words.command;
  if (words.slowMs != 0) text += ", " + std::to_string(words.slowMs) + " ms and slower";
  return text;
}

void followTap(const kl::message& request, const CommandLine& line, const TapReader& reader) {
  const Interrupt interrupt(reader.signals);
  StreamSession stream(line.timeout, tapJob(request, ticksOf(line.timeout)));
  bool hasPaused = true;
  while (!reader.isEnough()) {
    kl::message m;
    const Deadline deadline = hasPaused ? Deadline() : std::chrono::steady_clock::now();
    const StreamSession::Next next = stream.next(m, deadline, interrupt.fd());
    hasPaused = next == StreamSession::kLate;
    if (hasPaused) reader.pause();
    else if (next == StreamSession::kArrived) takeEvent(eventOf(m), reader);
    else return takeRest(stream, reader);
  }
}

}  // namespace klctl
