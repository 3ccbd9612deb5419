// A word is tried as seconds since 1970, as a time ago, and as a local time in a few formats.

#include "values/since.h"

#include <charconv>
#include <cstdio>
#include <ctime>

namespace klctl {
namespace {

using Nanoseconds = unsigned long long;

constexpr Nanoseconds kSecond = 1'000'000'000;
constexpr Nanoseconds kMostSeconds = 10'000'000'000;  // far in the future, and small enough to reckon with

static_assert(sizeof(std::time_t) >= 8, "a line's time may be later than 2038");

std::optional<Nanoseconds> secondsIn(const std::string& digits) {
  Nanoseconds number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error != std::errc() || end != digits.data() + digits.size() || number > kMostSeconds) return {};
  return number;
}

Nanoseconds unitOf(char letter) {
  switch (letter) {
    case 's': return 1;
    case 'm': return 60;
    case 'h': return 3600;
    case 'd': return 86400;
    default: return 0;
  }
}

std::optional<Nanoseconds> ago(const std::string& word, Nanoseconds now) {
  const Nanoseconds unit = unitOf(word.back());
  const auto count = secondsIn(word.substr(0, word.size() - 1));
  if (unit == 0 || !count || *count > kMostSeconds / unit) return {};
  const Nanoseconds past = *count * unit * kSecond;
  return past < now ? now - past : 0;
}

// The first format that fits the whole word; fields that it does not have stay as they are in `time`.
bool readLocal(const std::string& word, std::tm& time) {
  for (const char* format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M",
                             "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
    std::tm read = time;
    const char* end = ::strptime(word.c_str(), format, &read);
    if (end == nullptr || *end != '\0') continue;
    time = read;
    return true;
  }
  return false;
}

std::optional<Nanoseconds> local(const std::string& word, Nanoseconds now) {
  const auto seconds = static_cast<std::time_t>(now / kSecond);
  std::tm time{};
  (void)::localtime_r(&seconds, &time);
  time.tm_hour = time.tm_min = time.tm_sec = 0;
  time.tm_isdst = -1;
  if (!readLocal(word, time)) return {};
  const std::time_t result = std::mktime(&time);
  if (result < 0) return {};
  return static_cast<Nanoseconds>(result) * kSecond;
}

}  // namespace

std::optional<unsigned long long> parseSince(const std::string& word, unsigned long long now) {
  if (word.empty()) return {};
  if (word.front() != '@') {
    const auto time = ago(word, now);
    return time ? time : local(word, now);
  }
  const auto seconds = secondsIn(word.substr(1));
  if (!seconds) return {};
  return *seconds * kSecond;
}

std::string dateText(unsigned long long seconds) {
  const auto moment = static_cast<std::time_t>(seconds);
  std::tm local{};
  char text[32];
  if (::localtime_r(&moment, &local) == nullptr) return std::to_string(seconds);
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local)};
}

}  // namespace klctl
