// The loader's table of the traffic has one row for each service, with what came to it and who has subscribed there; that of
// the open requests has what waits.

#include "verbs/graph.h"

#include <algorithm>
#include <utility>

#include "ask/open_requests.h"
#include "kl/conventions.h"
#include "kl/services.h"
#include "output/graph.h"
#include "output/show.h"
#include "verbs/requests.h"

namespace klctl {
namespace {

const std::vector<std::string> kSubscriptionColumns = {"subscriber", "at", "command", "times"};

using Entries = std::vector<kl::message::flat_message>;
using Ends = std::pair<unsigned int, unsigned int>;

ServiceRows fetchTraffic(const Exchange& exchange) {
  kl::message request;
  request.insert(kl::SYS_CMD, kl::CMD_GETALL);
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER, kl::LOADER_TRAFFIC});
  return fetchAll(request, "loader/traffic", exchange);
}

GraphEdge& edgeAt(std::map<Ends, GraphEdge>& edges, unsigned int from, unsigned int to) {
  GraphEdge& edge = edges[{from, to}];
  edge.from = from;
  edge.to = to;
  return edge;
}

void addRow(std::map<Ends, GraphEdge>& edges, const kl::message& row) {
  const unsigned int to = row.get(kl::STD_ID, kl::BADID);
  for (const kl::message sent : row.get(kl::TRAFFIC_SENDERS, Entries())) {
    GraphEdge& edge = edgeAt(edges, sent.get(kl::TRAFFIC_SERVICE, 0), to);
    edge.messages += sent.get(kl::SVC_MESSAGES_IN, 0);
    edge.bytes += sent.get(kl::SVC_BYTES_IN, 0);
  }
  for (const kl::message one : row.get(kl::TRAFFIC_SUBSCRIBERS, Entries()))
    edgeAt(edges, one.get(kl::TRAFFIC_SERVICE, 0), to).subscriptions += one.get(kl::TRAFFIC_TIMES, 0);
}

Graph graphOf(const OpenRequests& open, const ServiceRows& traffic) {
  Graph graph;
  for (const auto& [id, service] : open.services) graph.names[id] = service.name;
  std::map<Ends, GraphEdge> edges;
  for (const kl::message row : traffic) addRow(edges, row);
  for (const OpenRequest& request : open.requests) ++edgeAt(edges, request.asker, request.asked).requests;
  for (const auto& [ends, edge] : edges) graph.edges.push_back(edge);
  std::stable_sort(graph.edges.begin(), graph.edges.end(),
                   [](const GraphEdge& a, const GraphEdge& b) { return a.messages > b.messages; });
  return graph;
}

std::string pathText(const std::string& service, const std::vector<unsigned int>& handlers) {
  std::string text = service;
  for (const unsigned int handler : handlers) text += "/" + std::to_string(handler);
  return text;
}

Json subscriptionRow(const OpenRequests& open, unsigned int provider, const kl::message& one,
                     CommandNames& names) {
  const OpenRequest channel{one.get(kl::TRAFFIC_SERVICE, 0), provider, one.get(kl::REQUEST_PATH, {}),
                            one.get(kl::REQUEST_COMMAND, 0)};
  const bool isOthers = channel.asker == 0;
  return {{"subscriber", isOthers ? "others" : open.nameOf(channel.asker)},
          {"subscriber_id", channel.asker},
          {"at", pathText(open.nameOf(provider), channel.path)},
          {"at_id", provider},
          {"command", isOthers ? "" : names.of(open, channel)},
          {"times", one.get(kl::TRAFFIC_TIMES, 0)}};
}

}  // namespace

void showGraph(const CommandLine& line, const Channels& channels) {
  const OpenRequests open = fetchOpenRequests(channels.exchange);
  const Graph graph = graphOf(open, fetchTraffic(channels.exchange));
  if (line.json) return channels.print(jsonText(graphJson(graph)));
  if (line.graph == GraphFormat::kDot) return channels.print(graphDot(graph));
  if (line.graph == GraphFormat::kSvg) return channels.print(graphSvg(graph));
  printTable(channels, graphTable(graph, lineWidth()), "nobody has sent anything");
}

void listSubscriptions(const CommandLine& line, const Channels& channels) {
  const OpenRequests open = fetchOpenRequests(channels.exchange);
  CommandNames names(line);
  std::vector<Json> rows;
  for (const kl::message row : fetchTraffic(channels.exchange))
    for (const kl::message one : row.get(kl::TRAFFIC_SUBSCRIBERS, Entries()))
      rows.push_back(subscriptionRow(open, row.get(kl::STD_ID, kl::BADID), one, names));
  if (line.json) return channels.print(jsonText(Json(rows)));
  printTable(channels, objectsTable(rows, kSubscriptionColumns, lineWidth()), "nobody has subscribed");
}

}  // namespace klctl
