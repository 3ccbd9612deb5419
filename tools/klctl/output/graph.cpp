// In the picture the services stand on a circle in the order of their numbers.  What one sends to another is a curve with an
// arrow, the wider the more messages; the two directions between two services bend to different sides.

#include "output/graph.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <set>

#include "output/load_table.h"
#include "output/show.h"
#include "services/common/text.h"

namespace klctl {
namespace {

constexpr std::size_t kWidestName = 40;
constexpr int kSmallestRadius = 160;
constexpr int kRadiusOfService = 18;  // that the circle grows by with each
constexpr int kMargin = 160;          // around it, for the names
constexpr int kBend = 6;              // a curve bends by a part of its length, this one

const std::vector<std::string> kGraphColumns = {"from",  "to",       "messages",
                                                "bytes", "requests", "subscriptions"};

Json rowOf(const Graph& graph, const GraphEdge& edge) {
  return {{"from", graph.labelOf(edge.from)}, {"to", graph.labelOf(edge.to)},
          {"messages", edge.messages},        {"bytes", edge.bytes},
          {"requests", edge.requests},        {"subscriptions", edge.subscriptions}};
}

std::set<unsigned int> servicesIn(const Graph& graph) {
  std::set<unsigned int> services;
  for (const GraphEdge& edge : graph.edges) services.insert({edge.from, edge.to});
  return services;
}

std::string shownName(const Graph& graph, unsigned int service) {
  return cutLine(common::printable(graph.labelOf(service)), kWidestName);
}

void replaceAll(std::string& text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
    text.replace(at, what.size(), with);
}

// In quotes a backslash begins something else.
std::string dotQuoted(std::string text) {
  replaceAll(text, "\\", "\\\\");
  replaceAll(text, "\"", "\\\"");
  return "\"" + text + "\"";
}

// The two last characters are none for XML.
std::string xmlText(std::string text) {
  replaceAll(text, "&", "&amp;");
  replaceAll(text, "<", "&lt;");
  replaceAll(text, ">", "&gt;");
  replaceAll(text, "\"", "&quot;");
  replaceAll(text, "\xef\xbf\xbe", "?");
  replaceAll(text, "\xef\xbf\xbf", "?");
  return text;
}

std::string counted(unsigned long long number, const std::string& noun) {
  return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

std::string sentenceOf(const Graph& graph, const GraphEdge& edge) {
  return shownName(graph, edge.from) + " to " + shownName(graph, edge.to) + ": " +
         counted(edge.messages, "message") + ", " + counted(edge.bytes, "byte") + ", " +
         counted(edge.requests, "open request") + ", " + counted(edge.subscriptions, "subscription");
}

struct Point {
  int x;
  int y;
};

std::string textOf(Point point) { return std::to_string(point.x) + " " + std::to_string(point.y); }

std::string at(Point point) {
  return "x=\"" + std::to_string(point.x) + "\" y=\"" + std::to_string(point.y) + "\"";
}

// 1 for one message, and one more for each ten times as many.
std::size_t widthOf(const GraphEdge& edge) { return std::to_string(edge.messages).size(); }

class Picture {
 public:
  explicit Picture(const Graph& graph) : graph_(graph) {
    const std::set<unsigned int> services = servicesIn(graph);
    const int count = static_cast<int>(services.size());
    const int radius = std::max(kSmallestRadius, count * kRadiusOfService);
    size_ = 2 * (radius + kMargin);
    int place = 0;
    for (const unsigned int service : services) {
      const double angle = 2 * std::numbers::pi * place++ / count;
      places_[service] = {size_ / 2 + static_cast<int>(std::lround(radius * std::cos(angle))),
                          size_ / 2 + static_cast<int>(std::lround(radius * std::sin(angle)))};
    }
  }

  std::string text() const {
    std::string svg = opening();
    for (const GraphEdge& edge : graph_.edges) svg += curve(edge);
    for (const auto& [service, place] : places_) svg += box(service, place);
    return svg + "</svg>\n";
  }

 private:
  std::string opening() const {
    const std::string size = std::to_string(size_);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + size + " " + size + "\" width=\"" +
           size + "\" height=\"" + size +
           "\" font-family=\"sans-serif\" font-size=\"12\" text-anchor=\"middle\">\n"
           "<defs><marker id=\"arrow\" viewBox=\"0 0 8 8\" refX=\"8\" refY=\"4\" markerWidth=\"8\" "
           "markerHeight=\"8\" markerUnits=\"userSpaceOnUse\" orient=\"auto\">"
           "<path d=\"M0 0L8 4L0 8z\"/></marker></defs>\n"
           "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  }

  // To its own queue the way is a loop towards the outside.
  std::string curve(const GraphEdge& edge) const {
    const Point from = places_.at(edge.from);
    const Point to = places_.at(edge.to);
    const Point bend = edge.from == edge.to ? outside(from) : besideTheMiddle(from, to);
    const Point label = {(from.x + 2 * bend.x + to.x) / 4, (from.y + 2 * bend.y + to.y) / 4};
    const std::string way = edge.from == edge.to ? "L" + textOf(bend) + "L" + textOf({to.x + 12, to.y + 12})
                                                 : "Q" + textOf(bend) + " " + textOf(ahead(to, bend));
    return "<g><title>" + xmlText(sentenceOf(graph_, edge)) + "</title><path d=\"M" + textOf(from) + way +
           "\" fill=\"none\" stroke=\"" + (edge.requests > 0 ? "firebrick" : "steelblue") +
           "\" stroke-width=\"" + std::to_string(widthOf(edge)) + "\" marker-end=\"url(#arrow)\"/><text " +
           at(label) + ">" + std::to_string(edge.messages) + "</text></g>\n";
  }

  Point outside(Point place) const {
    return {place.x + (place.x - size_ / 2) / 4, place.y + (place.y - size_ / 2) / 4 + 30};
  }

  static Point besideTheMiddle(Point from, Point to) {
    return {(from.x + to.x) / 2 - (to.y - from.y) / kBend, (from.y + to.y) / 2 + (to.x - from.x) / kBend};
  }

  // Where the arrow ends, in front of the name.
  static Point ahead(Point to, Point bend) {
    const double length = std::hypot(bend.x - to.x, bend.y - to.y);
    const double part = length < 1 ? 0 : std::min(1.0, 20 / length);
    return {to.x + static_cast<int>(std::lround((bend.x - to.x) * part)),
            to.y + static_cast<int>(std::lround((bend.y - to.y) * part))};
  }

  std::string box(unsigned int service, Point place) const {
    const std::string name = shownName(graph_, service);
    const int width = 14 + 7 * static_cast<int>(name.size());
    return "<rect " + at({place.x - width / 2, place.y - 12}) + " width=\"" + std::to_string(width) +
           "\" height=\"24\" rx=\"6\" fill=\"white\" stroke=\"black\"/><text " + at({place.x, place.y + 4}) +
           ">" + xmlText(name) + "</text>\n";
  }

  const Graph& graph_;
  int size_ = 0;
  std::map<unsigned int, Point> places_;
};

}  // namespace

std::string Graph::labelOf(unsigned int service) const {
  if (service == 0) return "others";
  const auto found = names.find(service);
  if (found == names.end() || found->second.empty()) return std::to_string(service);
  const auto hasName = [&](const auto& one) { return one.second == found->second; };
  const bool isUnique = std::count_if(names.begin(), names.end(), hasName) == 1;
  return isUnique ? found->second : found->second + " (" + std::to_string(service) + ")";
}

std::string graphTable(const Graph& graph, std::size_t width) {
  std::vector<Json> rows;
  for (const GraphEdge& edge : graph.edges) rows.push_back(rowOf(graph, edge));
  return objectsTable(rows, kGraphColumns, width);
}

Json graphJson(const Graph& graph) {
  Json rows = Json::array();
  for (const GraphEdge& edge : graph.edges) {
    Json row = rowOf(graph, edge);
    row["from_id"] = edge.from;
    row["to_id"] = edge.to;
    rows.push_back(std::move(row));
  }
  return rows;
}

std::string graphDot(const Graph& graph) {
  std::string dot = "digraph services {\n  rankdir=LR;\n  node [shape=box];\n";
  for (const unsigned int service : servicesIn(graph))
    dot += "  " + std::to_string(service) + " [label=" + dotQuoted(shownName(graph, service)) + "];\n";
  for (const GraphEdge& edge : graph.edges)
    dot += "  " + std::to_string(edge.from) + " -> " + std::to_string(edge.to) + " [label=\"" +
           std::to_string(edge.messages) + "\", penwidth=" + std::to_string(widthOf(edge)) +
           ", tooltip=" + dotQuoted(sentenceOf(graph, edge)) + (edge.requests > 0 ? ", color=red" : "") +
           "];\n";
  return dot + "}\n";
}

std::string graphSvg(const Graph& graph) { return Picture(graph).text(); }

}  // namespace klctl
