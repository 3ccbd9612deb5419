#pragma once
// since.h: words for a point in time.

#include <optional>
#include <string>

namespace klctl {

// Nanoseconds since 1970 of a word; nothing when it is none.  `now` is the time in the same unit.
//
//     90s  10m  2h  3d                   so long ago
//     06:30  06:30:15                    today, local time
//     2026-11-21  "2026-11-21 06:30"     local time; a T may stand for the blank
//     @1795241306                        seconds since 1970
std::optional<unsigned long long> parseSince(const std::string& word, unsigned long long now);

// Seconds since 1970 as "2026-11-21 06:30:00", local time.
std::string dateText(unsigned long long seconds);

}  // namespace klctl
