// The columns are as wide as their widest cell; cells are measured in characters, not in bytes.  In the history only
// nothing at all is the lowest level.

#include "output/load_table.h"

#include <langinfo.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "kl/conventions.h"
#include "services/common/text.h"
#include "values/units.h"

namespace klctl {
namespace {

using Cells = std::vector<std::string>;

struct OrderWord {
  LoadOrder order;
  char key;
  const char* word;
};
constexpr OrderWord kOrders[] = {
    {LoadOrder::kId, '#', "id"},         {LoadOrder::kName, 'n', "name"},  {LoadOrder::kCpu, 'c', "cpu"},
    {LoadOrder::kMemory, 'm', "memory"}, {LoadOrder::kIn, 'i', "in"},      {LoadOrder::kOut, 'o', "out"},
    {LoadOrder::kQueue, 'u', "queue"},   {LoadOrder::kOldest, 'a', "age"}, {LoadOrder::kDrops, 'd', "drops"},
};

struct LoadColumn {
  const char* title;
  bool isNumber;
};
constexpr LoadColumn kLoadColumns[] = {
    {"id", true},       {"name", false}, {"state", false}, {"cpu", true},   {"mem KiB", true},
    {"in/s", true},     {"out/s", true}, {"queue", true},  {"drops", true}, {"oldest request", false},
    {"history", false},
};

constexpr std::size_t kWidestName = 24;

// The number that is compared; absent ones are the least.
Count valueFor(const ServiceLoad& service, LoadOrder order) {
  const auto plusOne = [](const std::optional<Count>& value) { return value ? *value + 1 : 0; };
  switch (order) {
    case LoadOrder::kCpu: return plusOne(service.cpuPermille);
    case LoadOrder::kMemory: return service.now.process ? service.now.process->memoryKiB + 1 : 0;
    case LoadOrder::kIn: return plusOne(service.inPerSecond);
    case LoadOrder::kOut: return plusOne(service.outPerSecond);
    case LoadOrder::kQueue: return service.now.queue;
    case LoadOrder::kOldest: return plusOne(service.now.oldestMs);
    case LoadOrder::kDrops: return service.now.drops;
    default: return 0;
  }
}

// "1,240"
std::string grouped(Count number) {
  const std::string digits = std::to_string(number);
  std::string text;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) text += ',';
    text += digits[i];
  }
  return text;
}

std::string grouped(const std::optional<Count>& number) { return number ? grouped(*number) : "-"; }

std::string percentText(const std::optional<Count>& permille) {
  return permille ? std::to_string(*permille / 10) + "." + std::to_string(*permille % 10) + " %" : "-";
}

std::string memoryText(const ServiceState& service) {
  return service.process ? grouped(service.process->memoryKiB) : "-";
}

std::string oldestText(const ServiceState& service) {
  if (!service.oldestMs) return "-";
  return ageText(*service.oldestMs) + (service.oldest.empty() ? "" : " " + common::printable(service.oldest));
}

bool continuesCharacter(char c) { return (static_cast<unsigned char>(c) & 0xc0) == 0x80; }

std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return !continuesCharacter(c); }));
}

std::string historyText(const std::vector<Count>& history, bool hasBlocks) {
  static constexpr const char* kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  static constexpr const char* kLetters[] = {"_", ".", "-", "~", "=", "+", "*", "#"};
  static_assert(std::size(kBlocks) == std::size(kLetters));
  constexpr Count kHighestLevel = std::size(kBlocks) - 1;
  const Count highest = history.empty() ? 0 : *std::max_element(history.begin(), history.end());
  std::string text;
  for (const Count value : history) {
    const Count level = highest == 0 ? 0 : (value * kHighestLevel + highest - 1) / highest;
    text += hasBlocks ? kBlocks[level] : kLetters[level];
  }
  return text;
}

Cells cellsOf(const ServiceLoad& service, bool hasBlocks) {
  const ServiceState& now = service.now;
  return {std::to_string(now.id),
          cutLine(common::printable(now.name), kWidestName),
          common::printable(now.state),
          percentText(service.cpuPermille),
          memoryText(now),
          grouped(service.inPerSecond),
          grouped(service.outPerSecond),
          grouped(now.queue),
          grouped(now.drops),
          oldestText(now),
          historyText(service.history, hasBlocks)};
}

std::string lineOf(const Cells& cells, const std::vector<std::size_t>& widths) {
  std::string line;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::string space(widths[i] - widthOf(cells[i]), ' ');
    line += (i > 0 ? " " : "") + (kLoadColumns[i].isNumber ? space + cells[i] : cells[i] + space);
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

std::string sumLine(const SystemLoad& load) {
  std::string line = "services " + std::to_string(load.services.size()) + "   messages " +
                     grouped(load.messagesPerSecond) + "/s   dropped " + grouped(load.drops) + "   denied " +
                     grouped(load.denials);
  const auto loader =
      std::find_if(load.services.begin(), load.services.end(),
                   [](const ServiceLoad& service) { return service.now.id == kl::SERVICE_LOADER; });
  if (loader == load.services.end()) return line;
  return line + "   loader " + memoryText(loader->now) + " KiB  " + percentText(loader->cpuPermille);
}

template <class Value>
void put(Json& json, const char* name, const std::optional<Value>& value) {
  if (value) json[name] = *value;
}

Json jsonOf(const ServiceLoad& service) {
  const ServiceState& now = service.now;
  Json json = {{"id", now.id}, {"name", now.name}, {"state", now.state}};
  if (now.pid > 0) json["pid"] = now.pid;
  if (service.cpuPermille) json["cpu_percent"] = static_cast<double>(*service.cpuPermille) / 10;
  if (now.process) json["memory_kib"] = now.process->memoryKiB;
  put(json, "in_per_s", service.inPerSecond);
  put(json, "out_per_s", service.outPerSecond);
  json["queue"] = now.queue;
  json["drops"] = now.drops;
  put(json, "oldest_ms", now.oldestMs);
  if (!now.oldest.empty()) json["oldest"] = now.oldest;
  json["history"] = service.history;
  return json;
}

}  // namespace

std::optional<LoadOrder> loadOrderOf(const std::string& word) {
  for (const OrderWord& order : kOrders)
    if (word == order.word) return order.order;
  return std::nullopt;
}

std::optional<LoadOrder> loadOrderOf(char key) {
  for (const OrderWord& order : kOrders)
    if (key == order.key) return order.order;
  return std::nullopt;
}

std::vector<std::string> loadOrderWords() {
  std::vector<std::string> words;
  for (const OrderWord& order : kOrders) words.push_back(order.word);
  return words;
}

void sortLoad(std::vector<ServiceLoad>& services, LoadOrder order) {
  std::stable_sort(services.begin(), services.end(), [order](const ServiceLoad& a, const ServiceLoad& b) {
    if (order == LoadOrder::kId) return a.now.id < b.now.id;
    if (order == LoadOrder::kName) return a.now.name < b.now.name;
    return valueFor(a, order) > valueFor(b, order);
  });
}

std::vector<std::string> loadLines(const SystemLoad& load, bool hasBlocks) {
  std::vector<Cells> table(1);
  for (const LoadColumn& column : kLoadColumns) table[0].push_back(column.title);
  for (const ServiceLoad& service : load.services) table.push_back(cellsOf(service, hasBlocks));
  std::vector<std::size_t> widths(std::size(kLoadColumns));
  for (const Cells& cells : table)
    for (std::size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], widthOf(cells[i]));
  std::vector<std::string> lines = {sumLine(load)};
  for (const Cells& cells : table) lines.push_back(lineOf(cells, widths));
  return lines;
}

bool hasBlockCharacters() { return std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0; }

std::string cutLine(const std::string& line, std::size_t width) {
  std::size_t characters = 0;
  for (std::size_t i = 0; i < line.size(); ++i)
    if (!continuesCharacter(line[i]) && ++characters > width) return line.substr(0, i);
  return line;
}

Json loadJson(const SystemLoad& load, unsigned long long time) {
  Json json = {{"time", time}};
  put(json, "messages_per_s", load.messagesPerSecond);
  json["drops"] = load.drops;
  json["denials"] = load.denials;
  json["services"] = Json::array();
  for (const ServiceLoad& service : load.services) json["services"].push_back(jsonOf(service));
  return json;
}

}  // namespace klctl
