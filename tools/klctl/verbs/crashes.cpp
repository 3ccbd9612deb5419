// The loader has the reports; the files that a report is of are on this machine, so their symbols are looked up here, by
// symbolize(1).  Where that cannot be, the report is shown as it came.

#include "verbs/crashes.h"

#include <algorithm>

#include "ask/open_requests.h"
#include "kl/conventions.h"
#include "kl/services.h"
#include "output/show.h"
#include "services/common/tap.h"
#include "services/common/text.h"
#include "values/since.h"
#include "verbs/request.h"
#include "verbs/resolve.h"
#include "verbs/symbolize.h"
#include "verbs/trace.h"

namespace klctl {
namespace {

constexpr char kOwner[] = "loader";
constexpr char kCrashesPath[] = "loader/20";
constexpr unsigned long long kNanoseconds = 1000000000;
const std::vector<std::string> kCrashColumns = {"id", "time", "service", "signal", "where", "times"};

Json crashRow(const kl::message& crash) {
  Json row = Json::object();
  row["id"] = crash.get(kl::STD_ID, kl::BADID);
  row["time"] = dateText(crash.get(kl::CRASH_TIME, 0) / kNanoseconds);
  row["service"] = crash.get(kl::SVC_NAME, "");
  row["signal"] = crash.get(kl::CRASH_SIGNAL, "");
  row["where"] = crash.get(kl::CRASH_WHERE, "");
  row["times"] = crash.get(kl::CRASH_TIMES, 0);
  return row;
}

std::string crashesText(const std::vector<kl::message::flat_message>& crashes) {
  std::vector<Json> rows;
  for (const kl::message crash : crashes) rows.push_back(crashRow(crash));
  return objectsTable(rows, kCrashColumns, lineWidth());
}

// The last part of a report: what the code in flight has said of itself.
std::string recordsIn(const std::string& report) {
  const std::size_t maps = report.find("\n\nmaps:\n");
  const std::size_t records = maps == std::string::npos ? maps : report.find("\nextra 0x", maps);
  return records == std::string::npos ? "" : report.substr(records + 1);
}

// What the service has sent and got; its names are those that services have now.
class LastMessages {
 public:
  LastMessages(const kl::message& crash, const CommandLine& line, const Channels& channels)
      : messages_(crash.get(common::tap::MESSAGES, {})),
        report_(line, messages_.empty() ? OpenRequests() : fetchOpenRequests(channels.exchange)) {}

  std::string text() {
    std::string lines;
    const std::size_t left = messages_.size() - std::min(messages_.size(), kMostShown);
    for (std::size_t i = 0; i < messages_.size(); ++i) {
      const std::string line = report_.lineOf(kl::message(messages_[i]));  // also for the age of later ones
      if (i >= left) lines += line;
    }
    return lines;
  }
  Json json() {
    Json all = Json::array();
    for (const kl::message shown : messages_) all.push_back(report_.objectOf(shown));
    return all;
  }

 private:
  static constexpr std::size_t kMostShown = 20;

  const std::vector<kl::message::flat_message> messages_;
  TraceReport report_;
};

std::string crashText(const kl::message& crash, const std::string& messages) {
  Json row = crashRow(crash);
  row["pid"] = crash.get(kl::SVC_PID, 0);
  row["program"] = crash.get(kl::CRASH_PROGRAM, "");
  if (crash.has(kl::CRASH_BUILD_ID)) row["build id"] = crash.get(kl::CRASH_BUILD_ID, "");
  const std::string report = crash.get(kl::CRASH_REPORT, "");
  const std::string stack = symbolized(report, crash.get(kl::CRASH_PROGRAM, ""));
  const std::string records = recordsIn(report);
  std::string text = stack.empty() ? "\nits report, as nothing could be found of its symbols:\n" + report
                                   : "\nits stack:\n" + stack;
  if (!stack.empty() && !records.empty()) text += "\nwhat it was at work on:\n" + records;
  if (!messages.empty()) text += "\nits last messages:\n" + messages;
  text.resize(text.find_last_not_of('\n') + 1);
  return objectTable(row) + common::printable(text, common::Newline::kKept) + "\n";
}

kl::message crashRequest(const CommandLine& line, unsigned int command) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER, kl::LOADER_CRASHES});
  request.insert(kl::SYS_CMD, command);
  if (line.path.object) request.insert(kl::STD_ID, *line.path.object);
  return request;
}

}  // namespace

void listCrashes(const CommandLine& line, const Channels& channels) {
  const FieldNames names = namesFor(kOwner, line.fields);
  std::string dumped;
  const Exchange exchange = line.dump ? dumping(channels.exchange, dumped, names) : channels.exchange;
  const auto crashes = fetchAll(crashRequest(line, kl::CMD_GETALL), kCrashesPath, exchange);
  if (line.dump) return channels.print(dumped);
  printTable(channels, line.json ? jsonText(Json(toJson(crashes, names))) : crashesText(crashes),
             "crashes: none since the loader keeps them");
}

void showCrash(const CommandLine& line, const Channels& channels) {
  const FieldNames names = namesFor(kOwner, line.fields);
  const std::string path = kCrashesPath + (":" + std::to_string(*line.path.object));
  kl::message crash = fetch(crashRequest(line, kl::CMD_GETOBJ), path, channels.exchange);
  if (line.dump) return channels.print(dumpText(crash));
  LastMessages messages(crash, line, channels);
  if (!line.json) return channels.print(crashText(crash, messages.text()));
  kl::cleanSys(crash);
  crash.remove(common::tap::MESSAGES);
  Json object = klctl::toJson(crash, names);
  object["messages"] = messages.json();
  channels.print(jsonText(object));
}

}  // namespace klctl
