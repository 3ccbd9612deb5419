// A line in a file is one line whatever its process wrote: name and text are escaped, everything else is made here.

#include "keeping/line_text.h"

#include <cstdio>
#include <ctime>

#include "services/common/text.h"

namespace logd {
namespace {

constexpr Nanoseconds kSecond = 1'000'000'000;
constexpr Nanoseconds kMicrosecond = 1'000;

static_assert(sizeof(std::time_t) >= 8, "a line's time may be later than 2038");

std::string timeText(Nanoseconds time) {
  const auto seconds = static_cast<std::time_t>(time / kSecond);
  std::tm parts{};
  (void)::gmtime_r(&seconds, &parts);
  char day[32];
  char text[48];
  (void)std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
  (void)std::snprintf(text, sizeof text, "%s.%06uZ", day,
                      static_cast<unsigned int>(time % kSecond / kMicrosecond));
  return text;
}

}  // namespace

std::string processText(const Origin& origin) {
  const std::string user = origin.uid == 0 ? "" : "," + std::to_string(origin.uid);
  return common::printable(origin.process) + "[" + std::to_string(origin.pid) + user + "]";
}

std::string textOf(const Line& line, const TopicNames& names) {
  const Origin& origin = *line.origin;
  return timeText(line.time) + " " + processText(origin) + " " + names.listOf(origin.topics) + ": " +
         common::printable(line.text) + "\n";
}

}  // namespace logd
