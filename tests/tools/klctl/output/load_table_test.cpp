#include "tools/klctl/output/load_table.h"

#include <gtest/gtest.h>

#include "tests/tools/klctl/hostile_text.h"

namespace klctl {
namespace {

ServiceLoad loadOf(unsigned int id, const std::string& name) {
  ServiceLoad load;
  load.now.id = id;
  load.now.name = name;
  load.now.state = "running";
  return load;
}

std::vector<unsigned int> sorted(std::vector<ServiceLoad> services, LoadOrder order) {
  sortLoad(services, order);
  std::vector<unsigned int> ids;
  for (const ServiceLoad& service : services) ids.push_back(service.now.id);
  return ids;
}

SystemLoad example() {
  SystemLoad load;
  load.messagesPerSecond = 1240;
  load.denials = 2;
  ServiceLoad loader = loadOf(1, "loader");
  loader.now.process = ProcessUsage{0, 384, 0};
  loader.cpuPermille = 3;
  ServiceLoad leases = loadOf(300, "leases");
  leases.now.process = ProcessUsage{0, 1412, 0};
  leases.cpuPermille = 978;
  leases.inPerSecond = 800;
  leases.outPerSecond = 0;
  leases.now.queue = 1048600;
  leases.now.drops = 7;
  leases.now.oldestMs = 4200;
  leases.now.oldest = "CMD_GETALL of web";
  leases.history = {0, 1, 100, 800};
  load.services = {loader, leases};
  return load;
}

TEST(LoadTable, HasALineForEachServiceBelowTheSums) {
  EXPECT_EQ(
      loadLines(example(), true),
      (std::vector<std::string>{
          "services 2   messages 1,240/s   dropped 0   denied 2   loader 384 KiB  0.3 %",
          " id name   state      cpu mem KiB in/s out/s     queue drops oldest request          history",
          "  1 loader running  0.3 %     384    -     -         0     0 -",
          "300 leases running 97.8 %   1,412  800     0 1,048,600     7 4.2 s CMD_GETALL of web ▁▂▂█"}));
}

TEST(LoadTable, HistoryIsOfLettersWhereBlocksCannotBeShown) {
  const std::string line = loadLines(example(), false).back();
  EXPECT_TRUE(line.ends_with(" _..#")) << line;
}

TEST(LoadTable, NobodyCanSteerTheTerminal) {
  SystemLoad load;
  load.services = {loadOf(500, kHostile)};
  load.services[0].now.oldest = kHostile;
  load.services[0].now.state = kHostile;
  load.services[0].now.oldestMs = 1;
  for (const std::string& line : loadLines(load, true))
    for (const char c : line) EXPECT_FALSE(static_cast<unsigned char>(c) < ' ' || c == 127) << line;
}

TEST(LoadTable, ALongNameTakesNoMoreThanItsColumn) {
  SystemLoad load;
  load.services = {loadOf(500, std::string(5000, 'n'))};
  EXPECT_LT(loadLines(load, true).back().size(), 120u);
}

TEST(LoadTable, CutsByCharacters) {
  EXPECT_EQ(cutLine("▁▂▃ab", 4), "▁▂▃a");
  EXPECT_EQ(cutLine("▁▂▃ab", 5), "▁▂▃ab");
  EXPECT_EQ(cutLine("▁▂▃ab", 0), "");
  EXPECT_EQ(cutLine("", 3), "");
}

TEST(LoadTable, SortsWhatGrowsWithTroubleDownwards) {
  std::vector<ServiceLoad> services = {loadOf(3, "a"), loadOf(1, "c"), loadOf(2, "b")};
  services[0].now.drops = 1;
  services[1].cpuPermille = 0;
  services[2].cpuPermille = 5;
  services[2].now.process = ProcessUsage{0, 0, 0};
  services[1].inPerSecond = 1;
  services[0].outPerSecond = 2;
  services[1].now.queue = 10;
  services[2].now.oldestMs = 0;
  using Ids = std::vector<unsigned int>;
  EXPECT_EQ(sorted(services, LoadOrder::kId), (Ids{1, 2, 3}));
  EXPECT_EQ(sorted(services, LoadOrder::kName), (Ids{3, 2, 1}));
  EXPECT_EQ(sorted(services, LoadOrder::kCpu), (Ids{2, 1, 3}));
  EXPECT_EQ(sorted(services, LoadOrder::kMemory), (Ids{2, 3, 1}));
  EXPECT_EQ(sorted(services, LoadOrder::kIn), (Ids{1, 3, 2}));
  EXPECT_EQ(sorted(services, LoadOrder::kOut), (Ids{3, 1, 2}));
  EXPECT_EQ(sorted(services, LoadOrder::kQueue), (Ids{1, 3, 2}));
  EXPECT_EQ(sorted(services, LoadOrder::kOldest), (Ids{2, 3, 1}));
  EXPECT_EQ(sorted(services, LoadOrder::kDrops), (Ids{3, 1, 2}));
}

TEST(LoadTable, EachWordAndEachKeyIsAnOrder) {
  for (const std::string& word : loadOrderWords()) EXPECT_TRUE(loadOrderOf(word)) << word;
  for (const char key : std::string("#ncmiouad")) EXPECT_TRUE(loadOrderOf(key)) << key;
  EXPECT_FALSE(loadOrderOf('x'));
  EXPECT_FALSE(loadOrderOf("state"));
}

TEST(LoadTable, JsonHasWhatIsKnown) {
  const Json json = loadJson(example(), 1763707800);
  EXPECT_EQ(json["time"], 1763707800u);
  EXPECT_EQ(json["messages_per_s"], 1240);
  const Json& leases = json["services"][1];
  EXPECT_EQ(leases["cpu_percent"], 97.8);
  EXPECT_EQ(leases["memory_kib"], 1412);
  EXPECT_EQ(leases["oldest_ms"], 4200);
  EXPECT_EQ(leases["oldest"], "CMD_GETALL of web");
  EXPECT_EQ(leases["history"], (std::vector<Count>{0, 1, 100, 800}));
  EXPECT_FALSE(json["services"][0].contains("in_per_s"));
  EXPECT_FALSE(json["services"][0].contains("pid"));
}

}  // namespace
}  // namespace klctl
