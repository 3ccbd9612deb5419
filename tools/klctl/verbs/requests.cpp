// The table of the open requests, with the names of services and commands in place of their numbers.

#include "verbs/requests.h"

#include "output/show.h"
#include "values/units.h"
#include "verbs/resolve.h"

namespace klctl {
namespace {

const std::vector<std::string> kRequestColumns = {"asker", "asked", "command", "age", "state"};

// The path as one would type it: "leases", "leases/0".
std::string askedText(const OpenRequests& open, const OpenRequest& request) {
  std::string text = open.nameOf(request.asked);
  for (const unsigned int handler : request.path) text += "/" + std::to_string(handler);
  return text;
}

Json tableRow(const OpenRequests& open, const OpenRequest& request, CommandNames& names) {
  return {{"asker", open.nameOf(request.asker)},
          {"asked", askedText(open, request)},
          {"command", names.of(open, request)},
          {"age", ageText(request.ageMs)},
          {"state", request.isHeld ? "held" : "delivered"}};
}

Json jsonRow(const OpenRequests& open, const OpenRequest& request, CommandNames& names) {
  return {{"asker", open.nameOf(request.asker)},
          {"asker_id", request.asker},
          {"asked", open.nameOf(request.asked)},
          {"asked_id", request.asked},
          {"path", request.path},
          {"command", names.of(open, request)},
          {"command_code", request.command},
          {"age_ms", request.ageMs},
          {"held", request.isHeld}};
}

}  // namespace

std::string CommandNames::of(const OpenRequests& open, const OpenRequest& request) {
  const std::string service = open.nameOf(request.asked);
  auto found = dictionaries_.find(service);
  if (found == dictionaries_.end())
    found = dictionaries_.emplace(service, dictionaryFor(line_, service)).first;
  return commandText(found->second, request.command);
}

void listRequests(const CommandLine& line, const Channels& channels) {
  const OpenRequests open = fetchOpenRequests(channels.exchange);
  CommandNames names(line);
  std::vector<Json> rows;
  for (const OpenRequest& request : open.requests)
    rows.push_back(line.json ? jsonRow(open, request, names) : tableRow(open, request, names));
  if (line.json) return channels.print(jsonText(Json(rows)));
  printTable(channels, objectsTable(rows, kRequestColumns, lineWidth()), "no request is open");
}

}  // namespace klctl
