#include "services/common/metrics.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

namespace common {
namespace {

ServiceMetrics service(unsigned int id, const std::string& name) {
  ServiceMetrics metrics;
  metrics.id = id;
  metrics.name = name;
  metrics.state = 4;
  metrics.traffic = {1000000, 1000001, 100000000, 100000001, 0, 0};
  metrics.starts = 1;
  return metrics;
}

ServiceMetrics inTrouble(unsigned int id, const std::string& name) {
  ServiceMetrics metrics = service(id, name);
  metrics.traffic.drops = 1007;
  metrics.traffic.denials = 2;
  metrics.queueBytes = 1048600;
  metrics.requests = 12;
  metrics.oldestMs = 4020;
  return metrics;
}

BusMetrics example() {
  BusMetrics bus;
  bus.all = {1, 2, 3, 4, 5, 6};
  bus.connections = 7;
  bus.add(service(1, "loader"), true);
  bus.add(inTrouble(300, "leases"), true);
  bus.add(inTrouble(70000, "stranger"), false);
  return bus;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::set<std::string> labelsIn(const std::string& text) {
  std::set<std::string> labels;
  for (const std::string& line : linesOf(text))
    if (line.starts_with("kelo_state{service=")) labels.insert(line.substr(19, line.rfind('}') - 19));
  return labels;
}

TEST(Metrics, AreTheseBytes) {
  EXPECT_EQ(metricsText(example()), R"(# TYPE kelo_all_in_messages counter
# HELP kelo_all_in_messages Messages delivered to all services.
kelo_all_in_messages_total 1
# TYPE kelo_all_out_messages counter
# HELP kelo_all_out_messages Messages sent by all services.
kelo_all_out_messages_total 2
# TYPE kelo_all_in_bytes counter
# UNIT kelo_all_in_bytes bytes
# HELP kelo_all_in_bytes Frames delivered to all services.
kelo_all_in_bytes_total 3
# TYPE kelo_all_out_bytes counter
# UNIT kelo_all_out_bytes bytes
# HELP kelo_all_out_bytes Frames sent by all services.
kelo_all_out_bytes_total 4
# TYPE kelo_all_drops counter
# HELP kelo_all_drops Messages lost because a queue was full.
kelo_all_drops_total 5
# TYPE kelo_all_denials counter
# HELP kelo_all_denials Messages not delivered because of rights.
kelo_all_denials_total 6
# TYPE kelo_connections counter
# HELP kelo_connections Connections that the loader has taken.
kelo_connections_total 7
# TYPE kelo_in_messages counter
# HELP kelo_in_messages Messages delivered to the service.
kelo_in_messages_total{service="loader"} 1000000
kelo_in_messages_total{service="leases"} 1000000
# TYPE kelo_out_messages counter
# HELP kelo_out_messages Messages sent by it.
kelo_out_messages_total{service="loader"} 1000001
kelo_out_messages_total{service="leases"} 1000001
# TYPE kelo_in_bytes counter
# UNIT kelo_in_bytes bytes
# HELP kelo_in_bytes Frames delivered to it.
kelo_in_bytes_total{service="loader"} 100000000
kelo_in_bytes_total{service="leases"} 100000000
# TYPE kelo_out_bytes counter
# UNIT kelo_out_bytes bytes
# HELP kelo_out_bytes Frames sent by it.
kelo_out_bytes_total{service="loader"} 100000001
kelo_out_bytes_total{service="leases"} 100000001
# TYPE kelo_drops counter
# HELP kelo_drops Messages for it lost because its queue was full.
kelo_drops_total{service="leases"} 1007
# TYPE kelo_denials counter
# HELP kelo_denials Messages of it not delivered because of its rights.
kelo_denials_total{service="leases"} 2
# TYPE kelo_starts counter
# HELP kelo_starts How often it was started.
kelo_starts_total{service="loader"} 1
kelo_starts_total{service="leases"} 1
# TYPE kelo_all_queue_bytes gauge
# UNIT kelo_all_queue_bytes bytes
# HELP kelo_all_queue_bytes Waits until services read.
kelo_all_queue_bytes 2097200
# TYPE kelo_all_requests gauge
# HELP kelo_all_requests Requests that nobody has answered yet.
kelo_all_requests 24
# TYPE kelo_other_services gauge
# HELP kelo_other_services Services that are connected and not configured.
kelo_other_services 1
# TYPE kelo_state gauge
# HELP kelo_state 1 stopped, 2 starting, 3 registered, 4 running, 5 delayed, 6 stopping, 7 leaving, 8 left.
kelo_state{service="loader"} 4
kelo_state{service="leases"} 4
# TYPE kelo_queue_bytes gauge
# UNIT kelo_queue_bytes bytes
# HELP kelo_queue_bytes Waits until it reads.
kelo_queue_bytes{service="leases"} 1048600
# TYPE kelo_requests gauge
# HELP kelo_requests Requests that it has not answered yet.
kelo_requests{service="leases"} 12
# TYPE kelo_oldest_request_seconds gauge
# UNIT kelo_oldest_request_seconds seconds
# HELP kelo_oldest_request_seconds Age of the oldest of them.
kelo_oldest_request_seconds{service="leases"} 4.020
# EOF
)");
}

// "counter" and "gauge" with what they are of.
using Kinds = std::set<std::pair<std::string, std::string>>;

TEST(MetricsPage, HasEachMetricAndNoOther) {
  Kinds written, described;
  for (const std::string& line : linesOf(metricsText(example()))) {
    std::istringstream words(line);
    std::string hash, type, name, kind;
    if (words >> hash >> type >> name >> kind && type == "TYPE") written.emplace(name, kind);
  }
  std::ifstream page(KL_SOURCE_DIR "/docs/metrics.md");
  for (std::string line; std::getline(page, line);) {
    std::istringstream words(line);
    std::string bar, name, second, kind;
    if (words >> bar >> name >> second >> kind && name.starts_with("`kelo_"))
      described.emplace(name.substr(1, name.size() - 2), kind);
  }
  EXPECT_FALSE(written.empty());
  EXPECT_EQ(written, described);
}

TEST(Metrics, AnAgeHasThreePlaces) {
  BusMetrics bus;
  bus.add(service(32, "a"), true);
  for (const auto& [ms, text] : std::vector<std::pair<unsigned long long, std::string>>{
           {0, " 0.000\n"}, {7, " 0.007\n"}, {999, " 0.999\n"}, {60000, " 60.000\n"}}) {
    bus.services[0].oldestMs = ms;
    EXPECT_NE(metricsText(bus).find("kelo_oldest_request_seconds{service=\"a\"}" + text), std::string::npos)
        << text;
  }
}

TEST(Metrics, AHundredServicesTakeAtMost32KiB) {
  BusMetrics bus;
  for (unsigned int id = 100; id < 190; ++id) bus.add(service(id, "serv" + std::to_string(id)), true);
  for (unsigned int id = 190; id < 200; ++id) bus.add(inTrouble(id, "serv" + std::to_string(id)), true);
  EXPECT_LE(metricsText(bus).size(), 32u * 1024);
}

TEST(Metrics, StrangersAddNoLines) {
  BusMetrics bus = example();
  const std::size_t lines = linesOf(metricsText(bus)).size();
  for (unsigned int id = 0x10000; id < 0x10400; ++id) bus.add(inTrouble(id, std::to_string(id)), false);
  EXPECT_EQ(linesOf(metricsText(bus)).size(), lines);
  EXPECT_NE(metricsText(bus).find("kelo_other_services 1025\n"), std::string::npos);
}

TEST(Metrics, NoNameLeavesItsQuotesOrSteersATerminal) {
  BusMetrics bus;
  bus.add(service(32, "a\"} 1\nkelo_state{service=\"b\\"), true);
  bus.add(service(33, "\x1b[2J\x7f\xff\xe2\x80\xae"), true);
  const std::string text = metricsText(bus);
  EXPECT_EQ(labelsIn(text), (std::set<std::string>{R"("a\"} 1\\x0akelo_state{service=\"b\\\\")",
                                                   R"("\\x1b[2J\\x7f\\xff\\xe2\\x80\\xae")"}));
  for (const char c : text) EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 127)) << static_cast<int>(c);
}

TEST(Metrics, NoTwoServicesHaveOneName) {
  BusMetrics bus;
  bus.add(service(1, "loader"), true);
  bus.add(service(40, "loader#41"), true);
  bus.add(service(41, "loader"), true);
  bus.add(service(42, std::string(kMostName, 'x') + "1"), true);
  bus.add(service(43, std::string(kMostName, 'x') + "2"), true);
  EXPECT_EQ(labelsIn(metricsText(bus)),
            (std::set<std::string>{"\"loader\"", "\"loader#41\"", "\"loader#41#41\"",
                                   '"' + std::string(kMostName, 'x') + '"',
                                   '"' + std::string(kMostName, 'x') + "#43\""}));
}

TEST(Metrics, ALongNameIsCutAndStaysUtf8) {
  BusMetrics bus;
  bus.add(service(32, std::string(kMostName - 1, 'x') + "\xc3\xa9 and a million more"), true);
  EXPECT_EQ(labelsIn(metricsText(bus)),
            std::set<std::string>{'"' + std::string(kMostName - 1, 'x') + "\\\\xc3\""});
}

}  // namespace
}  // namespace common
