#pragma once
// lib/loop/local_time.h: the local time as text, where the C library's functions must not be called.

#include <cstddef>
#include <ctime>

namespace kl {

inline constexpr std::size_t kTimeTextBytes = 40;

// Learns from the C library how far local time is from UTC, from `now` on for two years.  Cheap enough for the
// start of a process; not async-signal-safe.
void rememberLocalZone(std::time_t now);

// Writes the time as ctime() does, with its newline: "Sat Nov 21 03:16:06 2026\n"; returns the number of bytes.
// After the two years the same days of the year change the clock.
//
// Async-signal-safe: arithmetic only.
std::size_t formatLocalTime(std::time_t time, char (&text)[kTimeTextBytes]);

}  // namespace kl
