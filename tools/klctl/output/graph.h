#pragma once
// graph.h: who sends to whom, as text, as JSON, for Graphviz and as a picture.  None of it can steer a terminal.

#include <map>
#include <string>
#include <vector>

#include "values/json.h"

namespace klctl {

// What one service sent to another, and what it wants there.
struct GraphEdge {
  unsigned int from = 0;
  unsigned int to = 0;
  unsigned long long messages = 0;
  unsigned long long bytes = 0;
  unsigned int requests = 0;       // that are not answered yet
  unsigned int subscriptions = 0;  // of `from` at `to`
};

// Services by their numbers, the busiest way between two of them in front.
struct Graph {
  std::map<unsigned int, std::string> names;
  std::vector<GraphEdge> edges;

  // "web"; "klctl (65540)" where several have the name, the number of one that has gone, "others" of 0.
  std::string labelOf(unsigned int service) const;
};

std::string graphTable(const Graph& graph, std::size_t width);
Json graphJson(const Graph& graph);

// For the programs of Graphviz.
std::string graphDot(const Graph& graph);

// A picture for any browser.  The same graph gives the same picture.
std::string graphSvg(const Graph& graph);

}  // namespace klctl
