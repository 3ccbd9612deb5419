// The words of the command line become a request, and the reply becomes text.
//
// The road of `klctl get netif:2`: main.cpp opens the channels, command_line.cpp reads the words, verb.cpp finds
// getObject() here; prepareRequest() builds the request, fetch() sends it through Session (ask/session.cpp), and the
// courier (ask/courier.cpp) carries it to the loader and the reply back; replyText() shows that.

#include "verbs/request.h"

#include <limits>
#include <sstream>

#include "ask/path.h"
#include "kl/conventions.h"
#include "output/show.h"
#include "values/assignment.h"
#include "values/json.h"
#include "values/since.h"
#include "verbs/graph.h"
#include "verbs/resolve.h"

namespace klctl {
namespace {
using Objects = Channels::Objects;

// The columns of `services`, and kWakeTime where a service has one; `getall loader` shows all fields of the loader's table.
// A terminal that has no room for all of them gets those that say what waits.
using Columns = std::vector<std::string>;
const Columns kServiceColumns = {"id",          "name",         "state", "pid",      "user",   "starts",
                                 "messages_in", "messages_out", "queue", "requests", "oldest", "drops"};
const Columns kFewServiceColumns = {"id",    "name",     "state",  "pid",  "user",
                                    "queue", "requests", "oldest", "drops"};

// Those of a table that fits the line; the last ones where none does.
const Columns& fitting(const std::vector<Json>& objects, const Columns& all, const Columns& few,
                       const FieldNames& names) {
  constexpr std::size_t kAnyWidth = std::numeric_limits<std::size_t>::max();
  const std::string table = objectsTable(objects, all, kAnyWidth, names);
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);)
    if (line.size() > lineWidth()) return few;
  return all;
}

constexpr char kWakeTime[] = "wake_at";

// The dates of wake times for people; JSON has the seconds.  True if there are any.
bool addDates(std::vector<Json>& rows) {
  bool hasDates = false;
  for (Json& row : rows) {
    if (!row.contains(kWakeTime) || !row[kWakeTime].is_number_unsigned()) continue;
    row[kWakeTime] = dateText(row[kWakeTime].get<unsigned int>());
    hasDates = true;
  }
  return hasDates;
}

std::string servicesText(const Objects& messages, const FieldNames& names) {
  std::vector<Json> rows = toJson(messages, names);
  Columns all = kServiceColumns;
  Columns few = kFewServiceColumns;
  if (addDates(rows))
    for (Columns* columns : {&all, &few}) columns->push_back(kWakeTime);
  return objectsTable(rows, fitting(rows, all, few, names), lineWidth(), names);
}

std::string objectsText(const CommandLine& line, const Objects& messages, const FieldNames& names,
                        const std::vector<std::string>& columns) {
  const std::vector<Json> objects = toJson(messages, names);
  if (line.json) return jsonText(Json(objects));
  return objectsTable(objects, columns.empty() ? columnsOf(objects, names) : columns, lineWidth(), names);
}

void requestReply(const CommandLine& line, const Channels& channels, unsigned int usualCommand) {
  const auto& [path, names, request] = prepareRequest(line, usualCommand, channels.exchange);
  const kl::message reply = fetch(request, path, channels.exchange);
  channels.print(line.dump ? dumpText(reply, names) : replyText(line, reply, names));
}

// A table over the connection that is open.  No columns: those that the objects have.
void requestTable(const CommandLine& line, const Channels& channels, const PreparedRequest& prepared,
                  const std::vector<std::string>& columns) {
  std::string dumped;
  const Objects objects =
      fetchAll(prepared.request, prepared.path,
               line.dump ? dumping(channels.exchange, dumped, prepared.names) : channels.exchange);
  printTable(channels, line.dump ? dumped : objectsText(line, objects, prepared.names, columns),
             prepared.path + ": no objects");
}

}  // namespace

void listServices(const CommandLine& words, const Channels& channels) {
  if (words.subscriptions) return listSubscriptions(words, channels);
  CommandLine line = words;
  line.path.service = "loader";
  const PreparedRequest prepared = prepareRequest(line, kl::CMD_GETALL, channels.exchange);
  if (line.dump || line.json) return requestTable(line, channels, prepared, kServiceColumns);
  const Objects services = fetchAll(prepared.request, prepared.path, channels.exchange);
  printTable(channels, servicesText(services, prepared.names), prepared.path + ": no objects");
}

void getObject(const CommandLine& line, const Channels& channels) {
  requestReply(line, channels, line.path.object ? kl::CMD_GETOBJ : kl::CMD_GET);
}

void getTable(const CommandLine& line, const Channels& channels) {
  const PreparedRequest prepared = prepareRequest(line, kl::CMD_GETALL, channels.exchange);
  if (line.dump) return requestTable(line, channels, prepared, {});
  const Objects objects = channels.walk(prepared.request, prepared.path);
  printTable(channels, objectsText(line, objects, prepared.names, {}), prepared.path + ": no objects");
}

void setObject(const CommandLine& line, const Channels& channels) {
  requestReply(line, channels, line.path.object ? kl::CMD_SETOBJ : kl::CMD_SET);
}

void sendCommand(const CommandLine& line, const Channels& channels) {
  if (!line.noReply) return requestReply(line, channels, kl::CMD_NOOP);
  channels.send(prepareRequest(line, kl::CMD_NOOP, channels.exchange).request);
  channels.print("");
}

PreparedRequest prepareRequest(const CommandLine& words, unsigned int usualCommand,
                               const Exchange& exchange) {
  const Dictionary dictionary = dictionaryFor(words, resolveName(words.path.service, exchange));
  const CommandLine line = resolved(words, dictionary);
  PreparedRequest prepared{pathText(line.path), dictionary.names, {}};
  kl::message& request = prepared.request;
  request.insert(kl::SYS_CMD, line.command.value_or(usualCommand));
  if (line.path.object) request.insert(kl::STD_ID, *line.path.object);
  for (const std::string& word : line.assignments) assign(request, word, prepared.names);
  request.insert(kl::SYS_TO, resolvePath(line.path, exchange));
  return prepared;
}

std::string replyText(const CommandLine& line, kl::message reply, const FieldNames& names) {
  kl::cleanSys(reply);
  if (line.json) return jsonText(klctl::toJson(reply, names));
  const auto objects = toJson(reply.get(kl::STD_OBJS, {}), names);
  reply.remove(kl::STD_OBJS);
  return objectTable(klctl::toJson(reply, names), names) +
         objectsTable(objects, columnsOf(objects, names), lineWidth(), names);
}

}  // namespace klctl
