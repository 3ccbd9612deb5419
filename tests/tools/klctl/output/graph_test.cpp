#include "tools/klctl/output/graph.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace klctl {
namespace {

constexpr std::size_t kAnyWidth = 1000;

Graph busyHouse() {
  Graph graph;
  graph.names = {{1, "loader"}, {28, "web"}, {300, "leases"}, {700, "klctl"}, {701, "klctl"}};
  graph.edges = {{28, 300, 12945, 466020, 2, 1}, {300, 28, 12943, 1000000, 0, 0}, {0, 1, 7, 300, 0, 0},
                 {701, 1, 2, 80, 0, 0},          {99, 28, 1, 40, 0, 0},           {28, 28, 1, 40, 0, 0}};
  return graph;
}

// A graph with a service of this name, which sends to itself and to another.
Graph named(const std::string& name) {
  Graph graph;
  graph.names = {{28, name}, {32, "netif"}};
  graph.edges = {{28, 32, 1, 40, 1, 0}, {28, 28, 1, 40, 0, 0}};
  return graph;
}

const std::string kHostileNames[] = {"a\x1b[2Jb",  "\"];x[label=\"", "</text><script>",
                                     "&amp;\\N\\", "\xef\xbf\xbf",   "\xff\n\r"};

// What Python's reader of XML says of the text: the number of its elements, or that it is none.
std::string asRead(const std::string& xml) {
  const std::string file = testing::TempDir() + "graph." + std::to_string(::getpid()) + ".svg";
  std::ofstream(file, std::ios::binary) << xml;
  const std::string command =
      "python3 -c 'import sys, xml.etree.ElementTree as tree\n"
      "root = tree.parse(sys.argv[1]).getroot()\n"
      "print(root.tag, len(root.findall(\".//{*}path\")), len(root.findall(\".//{*}title\")))' " +
      file + " 2>&1";
  FILE* const python = ::popen(command.c_str(), "r");
  std::string said;
  char part[256];
  while (python != nullptr && std::fgets(part, sizeof part, python) != nullptr) said += part;
  if (python != nullptr) ::pclose(python);
  std::remove(file.c_str());
  return said;
}

TEST(GraphOutput, TheTableHasALineForEachPair) {
  EXPECT_EQ(graphTable(busyHouse(), kAnyWidth),
            "from        to     messages   bytes requests subscriptions\n"
            "web         leases    12945  466020        2             1\n"
            "leases      web       12943 1000000        0             0\n"
            "others      loader        7     300        0             0\n"
            "klctl (701) loader        2      80        0             0\n"
            "99          web           1      40        0             0\n"
            "web         web           1      40        0             0\n");
}

TEST(GraphOutput, ProgramsGetNumbersBesideTheNames) {
  const Json all = graphJson(busyHouse());
  ASSERT_EQ(all.size(), 6u);
  EXPECT_EQ(all[0],
            Json::parse(R"({"from": "web", "to": "leases", "messages": 12945, "bytes": 466020, "requests": 2,
                                    "subscriptions": 1, "from_id": 28, "to_id": 300})"));
  EXPECT_EQ(graphJson({}), Json::array());
}

TEST(GraphOutput, GraphvizGetsServicesAndTheWaysBetweenThem) {
  Graph graph = busyHouse();
  graph.edges.resize(2);
  EXPECT_EQ(
      graphDot(graph),
      "digraph services {\n"
      "  rankdir=LR;\n"
      "  node [shape=box];\n"
      "  28 [label=\"web\"];\n"
      "  300 [label=\"leases\"];\n"
      "  28 -> 300 [label=\"12945\", penwidth=5, tooltip=\"web to leases: 12945 messages, 466020 bytes, "
      "2 open requests, 1 subscription\", color=red];\n"
      "  300 -> 28 [label=\"12943\", penwidth=5, tooltip=\"leases to web: 12943 messages, 1000000 bytes, "
      "0 open requests, 0 subscriptions\"];\n"
      "}\n");
}

// Every quote that a name brings is escaped, and every backslash is doubled once more than for a terminal.
TEST(GraphOutput, HostileNamesDoNotLeaveTheirQuotesInDot) {
  EXPECT_NE(graphDot(named("\"];x[label=\"")).find("28 [label=\"\\\"];x[label=\\\"\"];\n"),
            std::string::npos);
  EXPECT_NE(graphDot(named("a\\N")).find("28 [label=\"a\\\\\\\\N\"];\n"), std::string::npos);
  EXPECT_NE(graphDot(named("a\x1b[2J")).find("28 [label=\"a\\\\x1b[2J\"];\n"), std::string::npos);
}

TEST(GraphOutput, ThePictureIsXml) {
  EXPECT_EQ(asRead(graphSvg(busyHouse())), "{http://www.w3.org/2000/svg}svg 7 6\n");
  EXPECT_EQ(asRead(graphSvg({})), "{http://www.w3.org/2000/svg}svg 1 0\n");
  std::string all;
  for (const std::string& name : kHostileNames) all += name;
  EXPECT_EQ(asRead(graphSvg(named(all))), "{http://www.w3.org/2000/svg}svg 3 2\n");
}

TEST(GraphOutput, ThePictureShowsNamesAndWhatWaits) {
  const std::string svg = graphSvg(busyHouse());
  EXPECT_EQ(svg, graphSvg(busyHouse()));
  for (const char* part :
       {">web</text>", ">klctl (701)</text>", ">others</text>", ">12945</text>", "firebrick",
        "<title>web to leases: 12945 messages, 466020 bytes, 2 open requests, 1 subscription</title>"})
    EXPECT_NE(svg.find(part), std::string::npos) << part;
}

TEST(GraphOutput, NoNameCanSteerTheTerminal) {
  for (const std::string& name : kHostileNames)
    for (const std::string& text :
         {graphTable(named(name), kAnyWidth), graphDot(named(name)), graphSvg(named(name))}) {
      EXPECT_EQ(text.find('\x1b'), std::string::npos);
      EXPECT_EQ(text.find('\r'), std::string::npos);
    }
  EXPECT_EQ(graphSvg(named("</text><script>")).find("<script>"), std::string::npos);
}

}  // namespace
}  // namespace klctl
