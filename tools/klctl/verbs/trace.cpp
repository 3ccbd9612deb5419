// Names are those that services have at the beginning.

#include "verbs/trace.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "output/show.h"
#include "services/common/tap.h"
#include "services/common/text.h"
#include "verbs/tapping.h"

namespace klctl {
namespace {

namespace tap = common::tap;

constexpr std::size_t kEndsWidth = 28;

std::string timeText(unsigned long long microseconds) {
  const auto seconds = static_cast<std::time_t>(microseconds / 1'000'000);
  std::tm parts{};
  (void)::localtime_r(&seconds, &parts);
  char text[32];
  (void)std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03u", parts.tm_hour, parts.tm_min, parts.tm_sec,
                      static_cast<unsigned int>(microseconds / 1000 % 1000));
  return text;
}

std::string errorText(unsigned int code) { return kl::getError(kl::errorMsg(code, "")); }

std::string exactAge(unsigned long long microseconds) {
  if (microseconds >= 1'000'000) return ageText(microseconds / 1000);
  char text[32];
  (void)std::snprintf(text, sizeof text, "%llu.%llu ms", microseconds / 1000, microseconds % 1000 / 100);
  return text;
}

std::string fateText(unsigned int fate) {
  switch (fate) {
    case tap::HELD: return "held";
    case tap::DENIED: return "denied";
    case tap::REFUSED: return "refused";
    case tap::DROPPED: return "dropped";
    case tap::UNASKED: return "nobody waits for it";
    case tap::NO_RECEIVER: return "no receiver";
    default: return "fate " + std::to_string(fate);
  }
}

}  // namespace

std::string TraceReport::lineOf(const kl::message& shown) {
  if (shown.has(tap::LOST)) return lostText(shown.get(tap::LOST, 0));
  ++messages_;
  const Json row = objectOf(shown);
  if (line_.json) return jsonLine(row);
  std::string ends = row["from"].get<std::string>() + " -> " + receiversOf(shown);
  ends.resize(std::max(ends.size(), kEndsWidth), ' ');
  std::string text = timeText(shown.get(tap::AT, 0)) + "  " + ends + "  ";
  text += kindOf(shown);
  if (shown.has(tap::ERROR)) text += "  error: " + errorText(shown.get(tap::ERROR, 0));
  else text += ", " + std::to_string(shown.get(tap::LENGTH, 0)) + " bytes";
  if (row.contains("fate")) text += ", " + row["fate"].get<std::string>();
  if (shown.get(tap::BY_LOADER, false)) text += " (by the loader)";
  if (row.contains("age_us")) text += "  " + exactAge(row["age_us"].get<unsigned long long>());
  else if (row.contains("age_ms")) text += "  " + ageText(row["age_ms"].get<unsigned long long>());
  if (shown.has(tap::NUMBER)) text += "  #" + std::to_string(shown.get(tap::NUMBER, 0));
  return common::printable(text) + "\n";
}

Json TraceReport::objectOf(const kl::message& shown) {
  Json row = rowOf(shown);
  addAge(row, shown);
  return row;
}

std::string TraceReport::lostText(unsigned long long count) {
  lost_ += count;
  if (line_.json) return jsonLine(Json{{"lost", count}});
  return std::to_string(count) + " messages came too fast and are left out\n";
}

Json TraceReport::rowOf(const kl::message& shown) {
  const std::vector<unsigned int> receivers = shown.get(tap::RECEIVERS, {});
  Json row{{"time_us", shown.get(tap::AT, 0)},
           {"from", nameOf(shown.get(tap::SENDER, 0))},
           {"from_id", shown.get(tap::SENDER, 0)},
           {"to", receiversOf(shown)},
           {"to_ids", receivers},
           {"reply", shown.get(tap::ANSWER, false)},
           {"by_loader", shown.get(tap::BY_LOADER, false)},
           {"bytes", shown.get(tap::LENGTH, 0)}};
  if (shown.has(tap::COMMAND)) row["command"] = commandOf(shown);
  if (shown.has(tap::COMMAND)) row["command_code"] = shown.get(tap::COMMAND, 0);
  if (shown.has(tap::CONTROL)) row["control"] = shown.get(tap::CONTROL, 0);
  if (shown.has(tap::NUMBER)) row["number"] = shown.get(tap::NUMBER, 0);
  if (shown.has(tap::ERROR)) row["error"] = errorText(shown.get(tap::ERROR, 0));
  if (shown.has(tap::ERROR)) row["error_code"] = shown.get(tap::ERROR, 0);
  if (shown.has(tap::FATE)) row["fate"] = fateText(shown.get(tap::FATE, 0));
  if (shown.has(tap::AGE)) row["age_ms"] = shown.get(tap::AGE, 0);
  return row;
}

// The loader's clock for ages goes in steps; that of the messages does not.
void TraceReport::addAge(Json& row, const kl::message& shown) {
  const std::vector<unsigned int> receivers = shown.get(tap::RECEIVERS, {});
  if (!shown.has(tap::NUMBER) || receivers.size() != 1) return;
  const unsigned int from = shown.get(tap::SENDER, 0);
  const unsigned int number = shown.get(tap::NUMBER, 0);
  const unsigned long long at = shown.get(tap::AT, 0);
  if (!shown.get(tap::ANSWER, false)) {
    if (seenAt_.size() >= kMostRemembered) seenAt_.clear();
    seenAt_[{from, receivers.front(), number}] = at;
    return;
  }
  const auto request = seenAt_.find({receivers.front(), from, number});
  if (request == seenAt_.end()) return;
  if (at >= request->second) row["age_us"] = at - request->second;
  seenAt_.erase(request);
}

// A request that the loader refuses is not delivered, so the command that its reply answers is not known.
std::string TraceReport::kindOf(const kl::message& shown) {
  if (!shown.get(tap::ANSWER, false)) return commandOf(shown);
  return shown.has(tap::COMMAND) ? "reply " + commandOf(shown) : "reply";
}

// By the description of the service that executes it.
std::string TraceReport::commandOf(const kl::message& shown) {
  if (shown.has(tap::CONTROL)) return "control " + std::to_string(shown.get(tap::CONTROL, 0));
  if (!shown.has(tap::COMMAND)) return shown.has(tap::ERROR) ? "notice" : "message";
  const std::vector<unsigned int> receivers = shown.get(tap::RECEIVERS, {});
  OpenRequest request;
  request.command = shown.get(tap::COMMAND, 0);
  if (shown.get(tap::ANSWER, false) || receivers.empty()) request.asked = shown.get(tap::SENDER, 0);
  else request.asked = receivers.front();
  return names_.of(services_, request);
}

std::string TraceReport::receiversOf(const kl::message& shown) const {
  const std::vector<unsigned int> receivers = shown.get(tap::RECEIVERS, {});
  if (receivers.size() != 1)
    return std::to_string(shown.get(tap::RECEIVER_COUNT, static_cast<unsigned int>(receivers.size()))) +
           " services";
  return receivers.front() == kl::PATH_ALL ? "all" : nameOf(receivers.front());
}

std::string TraceReport::nameOf(unsigned int service) const { return services_.nameOf(service); }

std::string TraceReport::countText() const {
  return std::to_string(messages_) + " messages, " + std::to_string(lost_) + " lost";
}

void traceMessages(const CommandLine& line, const Channels& channels) {
  const kl::message request = tapRequest(line, channels.exchange);
  TraceReport report(line, fetchOpenRequests(channels.exchange));
  channels.disconnect();
  followTap(request, line,
            {.begin = [&] { channels.remark(tapWish(line)); },
             .take = [&](const kl::message& shown) { channels.print(report.lineOf(shown)); },
             .isEnough = [&] { return line.trace.count != 0 && report.messages() >= line.trace.count; }});
  channels.remark(report.countText());
}

}  // namespace klctl
