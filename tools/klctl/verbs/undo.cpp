// A record has its maker as numbers and its time in seconds; text shows a name and a date, JSON the fields as they came.
// Its messages are those of another service, whose description says what is secret in them.

#include "verbs/undo.h"

#include <map>

#include "ask/path.h"
#include "kl/conventions.h"
#include "kl/services.h"
#include "output/show.h"
#include "values/rights_words.h"
#include "values/since.h"
#include "verbs/resolve.h"

namespace klctl {
namespace {

constexpr char kUndo[] = "undo";
const std::vector<std::string> kColumns = {"id", "time", "user", "service", "description", "undone"};

// Asks the loader for each name once.
class Sources {
 public:
  explicit Sources(const Exchange& exchange) : exchange_(exchange) {}

  std::string textOf(const std::vector<unsigned int>& path) {
    if (path.empty()) return "";
    std::string text = nameOf(path.front());
    for (std::size_t i = 1; i < path.size(); ++i) text += "/" + std::to_string(path[i]);
    return text;
  }

 private:
  std::string nameOf(unsigned int id) {
    const auto known = names_.find(id);
    if (known != names_.end()) return known->second;
    const std::string number = std::to_string(id);
    const std::string name = resolveName(number, exchange_);
    return names_[id] = name.empty() ? number : name;
  }

  const Exchange& exchange_;
  std::map<unsigned int, std::string> names_;
};

// The record without the secrets in its messages, by the description of whoever they are for.
kl::message withoutSecrets(kl::message record, const CommandLine& line, const Exchange& exchange) {
  if (line.secrets) return record;
  for (const auto field : {kl::UNDO_REQUEST, kl::UNDO_MESSAGE}) {
    if (!record.has(field)) continue;
    const kl::message m(record.get(field, {}));
    auto to = m.get(kl::SYS_TO, {});
    if (to.empty()) to = record.get(kl::UNDO_SOURCE, {});
    if (to.empty()) continue;
    const std::string service = resolveName(std::to_string(to.front()), exchange);
    record.insert(field, klctl::withoutSecrets(m, dictionaryFor(line, service).names).flattened());
  }
  return record;
}

// An exchange whose replies are such records, or have them.  The arguments are borrowed.
Exchange hidingSecrets(const CommandLine& line, const Exchange& exchange) {
  return [&](const kl::message& request) {
    kl::message reply = withoutSecrets(exchange(request), line, exchange);
    if (!reply.has(kl::STD_OBJS)) return reply;
    std::vector<kl::message::flat_message> objects = reply.get(kl::STD_OBJS, {});
    for (auto& object : objects) object = withoutSecrets(kl::message(object), line, exchange).flattened();
    reply.insert(kl::STD_OBJS, objects);
    return reply;
  };
}

Json rowOf(const kl::message& record, Sources& sources) {
  Json row = Json::object();
  row["id"] = record.get(kl::STD_ID, kl::BADID);
  row["time"] = dateText(record.get(kl::UNDO_TIME, 0));
  row["user"] = record.get(kl::UNDO_USER, "");
  row["service"] = sources.textOf(record.get(kl::UNDO_SOURCE, {}));
  row["description"] = record.get(kl::UNDO_DESCRIPTION, "");
  row["undone"] = record.get(kl::UNDO_UNDONE, false) ? "yes" : "";
  return row;
}

std::string listText(const std::vector<kl::message::flat_message>& records, const Exchange& exchange) {
  Sources sources(exchange);
  std::vector<Json> rows;
  for (const kl::message record : records) rows.push_back(rowOf(record, sources));
  return objectsTable(rows, kColumns, lineWidth());
}

std::string showText(const kl::message& record, const Exchange& exchange) {
  Sources sources(exchange);
  const bool isUndone = record.get(kl::UNDO_UNDONE, false);
  Json row = rowOf(record, sources);
  row["undone"] = isUndone ? "yes" : "no";
  if (record.has(kl::UNDO_REPORTER)) row["reported by"] = record.get(kl::UNDO_REPORTER, "");
  row["needs"] = rightsText(record.get(kl::UNDO_RIGHTS, 0));
  return objectTable(row) + "\nwhat was asked:\n" + dumpText(record.get(kl::UNDO_REQUEST, {})) +
         (isUndone ? "\nwhat does it again:\n" : "\nwhat undoes it:\n") +
         dumpText(record.get(kl::UNDO_MESSAGE, {}));
}

kl::message requestFor(const CommandLine& line, unsigned int command) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_UNDO});
  request.insert(kl::SYS_CMD, command);
  if (line.path.object) request.insert(kl::STD_ID, *line.path.object);
  return request;
}

kl::message fetchOne(const CommandLine& line, unsigned int command, const Exchange& exchange) {
  return fetch(requestFor(line, command), kUndo + (":" + std::to_string(*line.path.object)), exchange);
}

std::string jsonOf(kl::message reply, const FieldNames& names) {
  kl::cleanSys(reply);
  return jsonText(klctl::toJson(reply, names));
}

}  // namespace

void listChanges(const CommandLine& line, const Channels& channels) {
  const FieldNames names = dictionaryFor(line, kUndo).names;
  std::string dumped;
  const Exchange hiding = hidingSecrets(line, channels.exchange);
  const Exchange exchange = line.dump ? dumping(hiding, dumped, names) : hiding;
  const auto records = fetchAll(requestFor(line, kl::CMD_GETALL), kUndo, exchange);
  if (line.dump) channels.print(dumped);
  else
    printTable(channels,
               line.json ? jsonText(Json(toJson(records, names))) : listText(records, channels.exchange),
               "undo: no changes");
}

void showChange(const CommandLine& line, const Channels& channels) {
  const FieldNames names = dictionaryFor(line, kUndo).names;
  const kl::message reply = fetchOne(line, kl::CMD_GETOBJ, hidingSecrets(line, channels.exchange));
  if (line.dump) channels.print(dumpText(reply));
  else channels.print(line.json ? jsonOf(reply, names) : showText(reply, channels.exchange));
}

void undoChange(const CommandLine& line, const Channels& channels) {
  const FieldNames names = dictionaryFor(line, kUndo).names;
  const kl::message reply = fetchOne(line, kl::CMD_START, hidingSecrets(line, channels.exchange));
  if (line.dump) channels.print(dumpText(reply));
  else channels.print(line.json ? jsonOf(reply, names) : "");
}

}  // namespace klctl
