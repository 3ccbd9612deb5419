// The zone is the C library's.  It reads the file again when that has changed, but not when TZ names the file: then
// TZ must change first.

#include "zone.h"

#include <algorithm>
#include <cstdlib>

namespace kl_system {
namespace {

constexpr std::time_t kStepSeconds = 900;  // no zone keeps an offset for less

// The first moment with another offset: that of `after`, and of everything behind the moment.
std::time_t firstWithAnother(int offset, std::time_t before, std::time_t after) {
  while (after - before > 1) {
    const std::time_t middle = before + (after - before) / 2;
    if (offsetAt(middle) == offset) before = middle;
    else after = middle;
  }
  return after;
}

}  // namespace

std::string zoneFile() {
  const char* tz = std::getenv("TZ");
  if (tz == nullptr) return "/etc/localtime";
  const std::string zone = *tz == ':' ? tz + 1 : tz;
  return zone.starts_with('/') ? zone : "/usr/share/zoneinfo/" + zone;
}

void readZoneAgain() {
  if (const char* tz = std::getenv("TZ")) {
    const std::string zone = tz;
    (void)::setenv("TZ", "", 1);
    ::tzset();
    (void)::setenv("TZ", zone.c_str(), 1);
  }
  ::tzset();
}

int offsetAt(std::time_t moment) {
  std::tm local{};
  return ::localtime_r(&moment, &local) != nullptr ? static_cast<int>(local.tm_gmtoff) : 0;
}

std::time_t nextChange(std::time_t from, std::time_t until) {
  const int offset = offsetAt(from);
  while (from < until) {
    const std::time_t next = std::min(from + kStepSeconds, until);
    if (offsetAt(next) != offset) return firstWithAnother(offset, from, next);
    from = next;
  }
  return until;
}

}  // namespace kl_system
