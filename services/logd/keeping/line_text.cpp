#include "keeping/line_text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace logd {
namespace {

constexpr Nanoseconds kSecond = 1'000'000'000;
constexpr Nanoseconds kMicrosecond = 1'000;

bool isHarmless(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x20 && byte != 0x7f;
}

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

std::string textOf(const Line& line, const TopicNames& names) {
  const Origin& origin = *line.origin;
  return timeText(line.time) + " " + harmless(origin.process) + "[" + std::to_string(origin.pid) + "] " +
         names.listOf(origin.topics) + ": " + harmless(line.text) + "\n";
}

std::string harmless(const std::string& text) {
  if (std::all_of(text.begin(), text.end(), isHarmless)) return text;
  std::string result;
  char code[8];
  for (const char c : text) {
    if (isHarmless(c)) {
      result += c;
      continue;
    }
    (void)std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
    result += code;
  }
  return result;
}

}  // namespace logd
