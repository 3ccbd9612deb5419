// Each family is a row of one of the tables below; what stands before its samples, and the name of these, follows from
// its kind.  A sample is the family's name, for a counter with "_total" behind it, the label of the service and a value.

#include "services/common/metrics.h"

#include <initializer_list>
#include <set>
#include <string_view>
#include <utility>

#include "services/common/text.h"

namespace common {
namespace {

enum class Kind { kCounter, kGauge };

struct Family {
  Kind kind;
  const char* name;  // ends with "_" and the unit where it has one
  const char* unit;
  const char* help;
};

using Value = std::optional<std::string>;

struct BusFamily {
  Family family;
  unsigned long long (*value)(const BusMetrics&);
};

struct ServiceFamily {
  Family family;
  Value (*value)(const ServiceMetrics&);
};

// Parsers want numbers without a sign or separators.
std::string number(unsigned long long value) { return std::to_string(value); }

Value unlessZero(unsigned long long value) { return value != 0 ? Value(number(value)) : std::nullopt; }

// Milliseconds as seconds.
Value seconds(std::optional<unsigned long long> ms) {
  if (!ms) return std::nullopt;
  constexpr unsigned long long kMsInSecond = 1000;
  const std::string part =
      number(kMsInSecond + *ms % kMsInSecond);  // "1042": three digits behind the first one
  return number(*ms / kMsInSecond) + "." + part.substr(1);
}

constexpr BusFamily kBusCounters[] = {
    {{Kind::kCounter, "kelo_all_in_messages", "", "Messages delivered to all services."},
     [](const BusMetrics& b) { return b.all.messagesIn; }},
    {{Kind::kCounter, "kelo_all_out_messages", "", "Messages sent by all services."},
     [](const BusMetrics& b) { return b.all.messagesOut; }},
    {{Kind::kCounter, "kelo_all_in_bytes", "bytes", "Frames delivered to all services."},
     [](const BusMetrics& b) { return b.all.bytesIn; }},
    {{Kind::kCounter, "kelo_all_out_bytes", "bytes", "Frames sent by all services."},
     [](const BusMetrics& b) { return b.all.bytesOut; }},
    {{Kind::kCounter, "kelo_all_drops", "", "Messages lost because a queue was full."},
     [](const BusMetrics& b) { return b.all.drops; }},
    {{Kind::kCounter, "kelo_all_denials", "", "Messages not delivered because of rights."},
     [](const BusMetrics& b) { return b.all.denials; }},
    {{Kind::kCounter, "kelo_connections", "", "Connections that the loader has taken."},
     [](const BusMetrics& b) { return b.connections; }},
};

constexpr ServiceFamily kServiceCounters[] = {
    {{Kind::kCounter, "kelo_in_messages", "", "Messages delivered to the service."},
     [](const ServiceMetrics& s) -> Value { return number(s.traffic.messagesIn); }},
    {{Kind::kCounter, "kelo_out_messages", "", "Messages sent by it."},
     [](const ServiceMetrics& s) -> Value { return number(s.traffic.messagesOut); }},
    {{Kind::kCounter, "kelo_in_bytes", "bytes", "Frames delivered to it."},
     [](const ServiceMetrics& s) -> Value { return number(s.traffic.bytesIn); }},
    {{Kind::kCounter, "kelo_out_bytes", "bytes", "Frames sent by it."},
     [](const ServiceMetrics& s) -> Value { return number(s.traffic.bytesOut); }},
    {{Kind::kCounter, "kelo_drops", "", "Messages for it lost because its queue was full."},
     [](const ServiceMetrics& s) { return unlessZero(s.traffic.drops); }},
    {{Kind::kCounter, "kelo_denials", "", "Messages of it not delivered because of its rights."},
     [](const ServiceMetrics& s) { return unlessZero(s.traffic.denials); }},
    {{Kind::kCounter, "kelo_starts", "", "How often it was started."},
     [](const ServiceMetrics& s) -> Value { return number(s.starts); }},
};

constexpr BusFamily kBusGauges[] = {
    {{Kind::kGauge, "kelo_all_queue_bytes", "bytes", "Waits until services read."},
     [](const BusMetrics& b) { return b.queueBytes; }},
    {{Kind::kGauge, "kelo_all_requests", "", "Requests that nobody has answered yet."},
     [](const BusMetrics& b) { return b.requests; }},
    {{Kind::kGauge, "kelo_other_services", "", "Services that are connected and not configured."},
     [](const BusMetrics& b) -> unsigned long long { return b.others; }},
};

constexpr ServiceFamily kServiceGauges[] = {
    {{Kind::kGauge, "kelo_state", "",
      "1 stopped, 2 starting, 3 registered, 4 running, 5 delayed, 6 stopping, 7 leaving, 8 left."},
     [](const ServiceMetrics& s) -> Value { return number(s.state); }},
    {{Kind::kGauge, "kelo_queue_bytes", "bytes", "Waits until it reads."},
     [](const ServiceMetrics& s) { return unlessZero(s.queueBytes); }},
    {{Kind::kGauge, "kelo_requests", "", "Requests that it has not answered yet."},
     [](const ServiceMetrics& s) { return unlessZero(s.requests); }},
    {{Kind::kGauge, "kelo_oldest_request_seconds", "seconds", "Age of the oldest of them."},
     [](const ServiceMetrics& s) { return seconds(s.oldestMs); }},
};

// The label as it stands between quotes.  printable() has left no newline.
std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + '"';
}

// A character that the cut parts is no UTF-8 any more, and printable() escapes what is left of it.
std::string nameOf(const ServiceMetrics& service) { return printable(service.name.substr(0, kMostName)); }

std::vector<std::string> labelsOf(const std::vector<ServiceMetrics>& services) {
  std::vector<std::string> labels;
  std::set<std::string> taken;
  for (const ServiceMetrics& service : services) {
    std::string name = nameOf(service);
    while (!taken.insert(name).second) name += "#" + number(service.id);
    labels.push_back("{service=" + quoted(name) + "}");
  }
  return labels;
}

class Writer {
 public:
  explicit Writer(const BusMetrics& bus) : bus_(bus), labels_(labelsOf(bus.services)) {}

  template <class Families>
  void write(const Families& families) {
    for (const auto& row : families) {
      head(row.family);
      samples(row);
    }
  }

  std::string end() { return std::move(text_) + "# EOF\n"; }

 private:
  void head(const Family& family) {
    const bool isCounter = family.kind == Kind::kCounter;
    sample_ = family.name + std::string(isCounter ? "_total" : "");
    line({"# TYPE ", family.name, isCounter ? " counter" : " gauge"});
    if (*family.unit != 0) line({"# UNIT ", family.name, " ", family.unit});
    line({"# HELP ", family.name, " ", family.help});
  }

  void samples(const BusFamily& row) { line({sample_, " ", number(row.value(bus_))}); }
  void samples(const ServiceFamily& row) {
    for (std::size_t i = 0; i < labels_.size(); ++i)
      if (const Value value = row.value(bus_.services[i])) line({sample_, labels_[i], " ", *value});
  }

  void line(std::initializer_list<std::string_view> parts) {
    for (const std::string_view part : parts) text_ += part;
    text_ += '\n';
  }

  const BusMetrics& bus_;
  const std::vector<std::string> labels_;  // of the services, in their order
  std::string sample_;                     // the name of the family's samples
  std::string text_;
};

}  // namespace

void BusMetrics::add(ServiceMetrics service, bool hasOwnLines) {
  queueBytes += service.queueBytes;
  requests += service.requests;
  if (hasOwnLines) services.push_back(std::move(service));
  else ++others;
}

std::string metricsText(const BusMetrics& bus) {
  Writer writer(bus);
  writer.write(kBusCounters);
  writer.write(kServiceCounters);
  writer.write(kBusGauges);
  writer.write(kServiceGauges);
  return writer.end();
}

}  // namespace common
