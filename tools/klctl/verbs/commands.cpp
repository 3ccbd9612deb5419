// From words to a request, from a reply to text.

#include "verbs/commands.h"

#include "ask/fetch.h"
#include "kl/conventions.h"
#include "kl/services.h"
#include "output/show.h"
#include "output/table.h"
#include "values/assignment.h"
#include "values/dictionary.h"
#include "values/failure.h"
#include "values/json.h"
#include "verbs/log.h"
#include "verbs/undo.h"

namespace klctl {
namespace {
// What `services` shows of the loader's table; `getall loader` shows all.
const std::vector<std::string> kServiceColumns = {"id",   "name",   "state",       "pid",
                                                  "user", "starts", "messages_in", "messages_out"};

std::string pathText(const PathWord& path) {
  std::string text = path.service;
  for (const unsigned int handler : path.handlers) text += "/" + std::to_string(handler);
  if (path.object) text += ":" + std::to_string(*path.object);
  return text;
}

unsigned int commandOf(const CommandLine& line) {
  if (line.command) return *line.command;
  switch (line.verb) {
    case Verb::kServices:
    case Verb::kWatch:
    case Verb::kGetAll: return kl::CMD_GETALL;
    case Verb::kGet: return line.path.object ? kl::CMD_GETOBJ : kl::CMD_GET;
    case Verb::kSet: return line.path.object ? kl::CMD_SETOBJ : kl::CMD_SET;
    default: break;
  }
  return kl::CMD_NOOP;
}

kl::message requestFor(const CommandLine& line, const FieldNames& names) {
  kl::message request;
  request.insert(kl::SYS_CMD, commandOf(line));
  if (line.path.object) request.insert(kl::STD_ID, *line.path.object);
  for (const std::string& word : line.assignments) assign(request, word, names);
  return request;
}

unsigned int actionOf(Verb verb) {
  switch (verb) {
    case Verb::kStart: return kl::SVC_START;
    case Verb::kStop: return kl::SVC_STOP;
    case Verb::kRestart: return kl::SVC_RESTART;
    default: return kl::SVC_LEAVE;
  }
}

// The loader answers a request to leave when the service has left, or has not.
kl::message act(const CommandLine& line, const Exchange& exchange) {
  const std::string& service = line.path.service;
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::SYS_CMD, kl::CMD_SETOBJ);
  request.insert(kl::STD_ID, serviceId(service, exchange));
  request.insert(kl::SVC_ACTION, actionOf(line.verb));
  kl::message reply = exchange(request);
  unsigned int code = kl::ERROR_OK;
  if (!kl::isError(reply, &code)) return reply;
  const bool stays = line.verb == Verb::kLeave && code == kl::ERROR_BUSY;
  throw Failure(stays ? Status::kStays : Status::kRefused, service + ": " + kl::getError(reply));
}

void addressTo(kl::message& request, const PathWord& path, const Exchange& exchange) {
  std::vector<unsigned int> to = {serviceId(path.service, exchange)};
  to.insert(to.end(), path.handlers.begin(), path.handlers.end());
  request.insert(kl::SYS_TO, to);
}

std::string showObjects(const CommandLine& line, const std::vector<kl::message::flat_message>& messages,
                        const FieldNames& names) {
  const std::vector<Json> objects = toJson(messages, names);
  if (line.json) return jsonText(Json(objects));
  const bool isServices = line.verb == Verb::kServices;
  return objectsTable(objects, isServices ? kServiceColumns : columnsOf(objects, names), lineWidth());
}

// A reply without what belongs to its journey.  A table in it is shown as one.
std::string showReply(const CommandLine& line, kl::message reply, const FieldNames& names) {
  kl::cleanSys(reply);
  if (line.json) return jsonText(klctl::toJson(reply, names));
  const auto objects = toJson(reply.get(kl::STD_OBJS, {}), names);
  reply.remove(kl::STD_OBJS);
  return objectTable(klctl::toJson(reply, names)) +
         objectsTable(objects, columnsOf(objects, names), lineWidth());
}

std::string runAction(const CommandLine& line, const Exchange& exchange) {
  const kl::message reply = act(line, exchange);
  return line.dump ? dumpText(reply) : showReply(line, reply, FieldNames());
}

}  // namespace

Subject subjectOf(const CommandLine& words, const Exchange& exchange) {
  CommandLine line = words;
  if (line.verb == Verb::kServices) line.path.service = "loader";
  Subject subject{pathText(line.path), namesFor(serviceName(line.path.service, exchange), line.fields), {}};
  subject.request = requestFor(line, subject.names);
  addressTo(subject.request, line.path, exchange);
  return subject;
}

std::string run(const CommandLine& line, const Exchange& exchange, const Send& send, const Walk& walk) {
  if (isUndo(line.verb)) return runUndo(line, exchange);
  if (isAction(line.verb)) return runAction(line, exchange);
  if (isLog(line.verb)) return runLog(line, exchange, walk);
  const auto& [path, names, request] = subjectOf(line, exchange);
  if (line.noReply) return send(request), "";
  if (line.verb == Verb::kGetAll && !line.dump) return showObjects(line, walk(request, path), names);

  std::string dumped;
  const auto noted = [&](const kl::message& m) {
    kl::message reply = exchange(m);
    if (line.dump) dumped += dumpText(reply);
    return reply;
  };
  const bool isTable = line.verb == Verb::kServices || line.verb == Verb::kGetAll;
  const std::string shown = isTable ? showObjects(line, fetchAll(request, path, noted), names)
                                    : showReply(line, fetch(request, path, noted), names);
  return line.dump ? dumped : shown;
}

Dumped dumpFile(const CommandLine& line) {
  const MessageFile file = readMessageFile(line.file, line.format);
  Dumped dumped{"", file.fault};
  Json all = Json::array();
  for (const FoundMessage& found : file.messages) {
    kl::message m;
    const bool isWhole =
        m.unflatten(found.bytes.data(), static_cast<unsigned int>(found.bytes.size()), kl::message::normal);
    if (!isWhole && dumped.fault.empty())
      dumped.fault = (found.title.empty() ? "the message" : found.title) + " is damaged";
    if (line.json) all.push_back({{"at", found.title}, {"message", klctl::toJson(m, FieldNames())}});
    else dumped.text += (found.title.empty() ? "" : found.title + "\n") + dumpText(m);
  }
  if (line.json) dumped.text = jsonText(all);
  if (!dumped.fault.empty()) dumped.fault = line.file + ": " + dumped.fault;
  return dumped;
}

}  // namespace klctl
