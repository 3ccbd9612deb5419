// The filter of the log comes from the words of the command line; each line becomes text with a time, a process and topics.

#include "verbs/log.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "kl/conventions.h"
#include "kl/services.h"
#include "output/show.h"
#include "services/common/text.h"
#include "values/dictionary.h"
#include "values/failure.h"
#include "values/field_id.h"
#include "verbs/log_filter.h"

namespace klctl {
namespace {

using Nanoseconds = unsigned long long;

constexpr Nanoseconds kSecond = 1'000'000'000;
constexpr Nanoseconds kMillisecond = 1'000'000;
constexpr unsigned int kMostTopic = 0xffff;
constexpr char kLog[] = "log";
constexpr char kPlain[] = "\x1b[0m";

std::string timeText(Nanoseconds time) {
  const auto seconds = static_cast<std::time_t>(time / kSecond);
  std::tm parts{};
  (void)::localtime_r(&seconds, &parts);
  char day[32];
  char text[48];
  (void)std::strftime(day, sizeof day, "%Y-%m-%d %H:%M:%S", &parts);
  (void)std::snprintf(text, sizeof text, "%s.%03u", day,
                      static_cast<unsigned int>(time % kSecond / kMillisecond));
  return text;
}

const char* colourOf(unsigned int severity) {
  switch (severity) {
    case kl::TOPIC_EMERGENCY:
    case kl::TOPIC_ALERT:
    case kl::TOPIC_CRITICAL: return "\x1b[1;31m";  // bold red
    case kl::TOPIC_ERROR: return "\x1b[31m";
    case kl::TOPIC_WARNING: return "\x1b[33m";  // yellow
    case kl::TOPIC_NOTICE: return "\x1b[1m";    // bold
    case kl::TOPIC_DEBUG: return "\x1b[2m";     // faint
    default: return "";
  }
}

void setMuted(const CommandLine& line, const Channels& channels, bool isMuted) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOG, kl::LOG_RULES});
  request.insert(kl::SYS_CMD, kl::CMD_SETOBJ);
  request.insert(kl::STD_ID, LogTopics(channels.exchange).find(line.log.topics.front()));
  request.insert(kl::LOG_MUTED, isMuted);
  (void)fetch(request, kLog, channels.exchange);
  channels.print("");
}

}  // namespace

LogTopics::LogTopics(const Exchange& exchange) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOG, kl::LOG_RULES});
  request.insert(kl::SYS_CMD, kl::CMD_GETALL);
  for (const kl::message object : fetchAll(request, kLog, exchange))
    if (object.has(kl::LOG_TOPIC_NAME))
      names_[object.get(kl::STD_ID, 0)] = object.get(kl::LOG_TOPIC_NAME, "");
}

unsigned int LogTopics::find(const std::string& word) const {
  for (const auto& [topic, name] : names_)
    if (name == word) return topic;
  const auto number = parseNumber(word, kMostTopic);
  if (!number || *number == 0) throw Failure(Status::kRefused, "log: there is no topic '" + word + "'");
  return static_cast<unsigned int>(*number);
}

std::string LogTopics::listOf(const std::vector<unsigned int>& topics) const {
  std::string list;
  for (const unsigned int topic : topics) {
    const auto name = names_.find(topic);
    list += (list.empty() ? "" : ",") + (name == names_.end() ? std::to_string(topic) : name->second);
  }
  return list.empty() ? "-" : list;
}

std::vector<std::string> LogTopics::names() const {
  std::vector<std::string> names;
  for (const auto& [topic, name] : names_) names.push_back(name);
  return names;
}

kl::message logRequest(const LogFilter& filter) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOG});
  request.insert(kl::SYS_CMD, kl::CMD_GETALL);
  filter.narrow(request);
  return request;
}

std::string logLine(const kl::message& object, const LogTopics& topics, bool inColour) {
  const auto of = object.get(kl::LOG_TOPICS, {});
  const std::string text =
      timeText(object.get(kl::LOG_TIME, 0)) + " " + common::printable(object.get(kl::LOG_PROCESS, "?")) +
      "[" + std::to_string(object.get(kl::LOG_PROCESS_ID, 0)) + "] " + common::printable(topics.listOf(of)) +
      ": " + common::printable(object.get(kl::LOG_TEXT, ""));
  const std::string colour = inColour ? colourOf(severityOf(of)) : "";
  return colour.empty() ? text + "\n" : colour + text + kPlain + "\n";
}

void remarkLimits(const Channels& channels) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOG});
  request.insert(kl::SYS_CMD, kl::CMD_GET);
  const kl::message figures = fetch(request, kLog, channels.exchange);
  if (!figures.has(kl::LOG_UID)) return;
  channels.remark(
      "log: only your own lines are shown; those of other users need the right \"contents\" at the log "
      "service");
}

bool wantsColour() { return ::isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr; }

void showLog(const CommandLine& line, const Channels& channels) {
  const LogTopics topics(channels.exchange);
  LogFilter filter(line.log, topics, channels.exchange);
  remarkLimits(channels);
  Channels::Objects objects;
  for (auto& object : channels.walk(logRequest(filter), kLog))
    if (filter.passes(object)) objects.push_back(std::move(object));
  if (line.log.last && objects.size() > *line.log.last)
    objects.erase(objects.begin(), objects.end() - static_cast<std::ptrdiff_t>(*line.log.last));
  if (line.json) return channels.print(jsonText(Json(toJson(objects, namesFor(kLog, line.fields)))));
  std::string text;
  const bool inColour = wantsColour();
  for (const kl::message object : objects) text += logLine(object, topics, inColour);
  printTable(channels, text, line.log.isFilter() ? "log: no line is so" : "log: no lines");
}

void muteTopic(const CommandLine& line, const Channels& channels) { setMuted(line, channels, true); }
void unmuteTopic(const CommandLine& line, const Channels& channels) { setMuted(line, channels, false); }

}  // namespace klctl
