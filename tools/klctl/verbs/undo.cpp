// A record names its maker by numbers and its time in seconds: both become what people read.  JSON shows the fields as
// they came.

#include "verbs/undo.h"

#include <ctime>
#include <map>

#include "ask/fetch.h"
#include "kl/conventions.h"
#include "kl/services.h"
#include "output/show.h"
#include "output/table.h"
#include "values/dictionary.h"

namespace klctl {
namespace {

const std::vector<std::string> kColumns = {"id", "time", "user", "service", "description", "undone"};

std::string timeText(unsigned long long seconds) {
  const auto moment = static_cast<std::time_t>(seconds);
  std::tm local{};
  char text[32];
  if (::localtime_r(&moment, &local) == nullptr) return std::to_string(seconds);
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local)};
}

// The words that the loader's configuration has for rights; bits without a word as a number.
std::string rightsText(unsigned int bits) {
  static const std::map<unsigned int, std::string> words = {{64, "read"}, {128, "change"}, {512, "control"}};
  std::string text;
  for (const auto& [bit, word] : words) {
    if ((bits & bit) == 0) continue;
    text += (text.empty() ? "" : " ") + word;
    bits &= ~bit;
  }
  if (bits != 0) text += (text.empty() ? "" : " ") + std::to_string(bits);
  return text.empty() ? "none" : text;
}

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
    const std::string name = serviceName(number, exchange_);
    return names_[id] = name.empty() ? number : name;
  }

  const Exchange& exchange_;
  std::map<unsigned int, std::string> names_;
};

Json rowOf(const kl::message& record, Sources& sources) {
  Json row = Json::object();
  row["id"] = record.get(kl::STD_ID, kl::BADID);
  row["time"] = timeText(record.get(kl::UNDO_TIME, 0));
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
  row["needs"] = rightsText(record.get(kl::UNDO_RIGHTS, 0));
  return objectTable(row) + "\nwhat was asked:\n" + dumpText(record.get(kl::UNDO_REQUEST, {})) +
         (isUndone ? "\nwhat does it again:\n" : "\nwhat undoes it:\n") +
         dumpText(record.get(kl::UNDO_MESSAGE, {}));
}

unsigned int commandOf(Verb verb) {
  if (verb == Verb::kUndoList) return kl::CMD_GETALL;
  return verb == Verb::kUndoShow ? kl::CMD_GETOBJ : kl::CMD_START;
}

kl::message requestFor(const CommandLine& line) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_UNDO});
  request.insert(kl::SYS_CMD, commandOf(line.verb));
  if (line.path.object) request.insert(kl::STD_ID, *line.path.object);
  return request;
}

}  // namespace

std::string runUndo(const CommandLine& line, const Exchange& exchange) {
  const FieldNames names = namesFor("undo", line.fields);
  std::string dumped;
  const auto noted = [&](const kl::message& m) {
    kl::message reply = exchange(m);
    if (line.dump) dumped += dumpText(reply);
    return reply;
  };
  const std::string path = line.path.object ? "undo:" + std::to_string(*line.path.object) : "undo";
  if (line.verb == Verb::kUndoList) {
    const auto records = fetchAll(requestFor(line), path, noted);
    if (line.dump) return dumped;
    return line.json ? jsonText(Json(toJson(records, names))) : listText(records, exchange);
  }
  kl::message reply = fetch(requestFor(line), path, noted);
  if (line.dump) return dumped;
  kl::cleanSys(reply);
  if (line.json) return jsonText(toJson(reply, names));
  return line.verb == Verb::kUndoShow ? showText(reply, exchange) : "";
}

}  // namespace klctl
