// Local time without the C library.
//
// localtime() takes a lock and may allocate, and a crash may have left either in any state.  So the offsets from UTC
// that are to come are learnt while everything is well: the next two years are probed every two weeks, and where
// the offset differs between two probes, the second of the change is found by halving.

#include "loop/local_time.h"

#include <array>

namespace kl {
namespace {

using Seconds = long long;  // time_t may have 32 bits, and two years ahead may be beyond them

constexpr Seconds kDay = 86400;
constexpr Seconds kProbeStep = 14 * kDay;
constexpr Seconds kYear = 365 * kDay;
constexpr Seconds kHorizon = 2 * kYear;
constexpr std::size_t kMostChanges = 16;

struct Change {
  Seconds from;
  long offset;  // seconds east of UTC
};

std::array<Change, kMostChanges> changes;
std::size_t changeCount = 0;
Seconds knownUntil = 0;

long askOffset(Seconds seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  return ::localtime_r(&time, &local) != nullptr ? local.tm_gmtoff : 0;
}

// The first second after `before` at which the offset is that of `after`.
Seconds findChange(Seconds before, Seconds after) {
  const long offset = askOffset(after);
  while (after - before > 1) {
    const Seconds middle = before + (after - before) / 2;
    if (askOffset(middle) == offset) after = middle;
    else before = middle;
  }
  return after;
}

// Async-signal-safe: arithmetic only.
long offsetAt(Seconds time) {
  if (changeCount == 0) return 0;
  if (time >= knownUntil) time -= ((time - knownUntil) / kYear + 1) * kYear;
  long offset = changes[0].offset;
  for (std::size_t i = 0; i < changeCount; ++i)
    if (time >= changes[i].from) offset = changes[i].offset;
  return offset;
}

struct Date {
  long long year;
  unsigned int month;  // 0 to 11
  unsigned int day;    // 1 to 31
};

// Async-signal-safe: arithmetic only.  Counts from a first of March, so that a leap day is the last of its year,
// in periods of 400 years.
Date dateOf(long long daysSince1970) {
  const long long days = daysSince1970 + 719468;
  const long long era = (days >= 0 ? days : days - 146096) / 146097;
  const auto dayOfEra = static_cast<unsigned int>(days - era * 146097);
  const unsigned int yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned int dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned int monthFromMarch = (5 * dayOfYear + 2) / 153;
  const unsigned int month = (monthFromMarch + 2) % 12;
  return {era * 400 + yearOfEra + (month < 2 ? 1 : 0), month, dayOfYear - (153 * monthFromMarch + 2) / 5 + 1};
}

// Async-signal-safe.  Appends to a text that is known to be long enough.
class Writer {
 public:
  explicit Writer(char* text) : begin_(text), end_(text) {}
  void put(char c) { *end_++ = c; }
  void putName(const char* names, unsigned int index) {
    for (unsigned int i = 0; i < 3; ++i) put(names[3 * index + i]);
  }
  void putTwo(unsigned int value, char filler) {
    put(value < 10 ? filler : static_cast<char>('0' + value / 10));
    put(static_cast<char>('0' + value % 10));
  }
  void putYear(long long year) {
    if (year >= 10) putYear(year / 10);
    put(static_cast<char>('0' + year % 10));
  }
  std::size_t size() const { return static_cast<std::size_t>(end_ - begin_); }

 private:
  char* begin_;
  char* end_;
};

}  // namespace

void rememberLocalZone(std::time_t now) {
  ::tzset();
  changes[0] = {now, askOffset(now)};
  changeCount = 1;
  knownUntil = now + kHorizon;
  for (Seconds time = now; time < knownUntil && changeCount < kMostChanges; time += kProbeStep) {
    const long offset = askOffset(time + kProbeStep);
    if (offset != changes[changeCount - 1].offset)
      changes[changeCount++] = {findChange(time, time + kProbeStep), offset};
  }
}

// Async-signal-safe: arithmetic only.
std::size_t formatLocalTime(std::time_t time, char (&text)[kTimeTextBytes]) {
  const Seconds local = Seconds{time} + offsetAt(time);
  const Seconds days = (local >= 0 ? local : local - (kDay - 1)) / kDay;
  const auto second = static_cast<unsigned int>(local - days * kDay);
  const auto weekday = static_cast<unsigned int>(((days + 4) % 7 + 7) % 7);
  const Date date = dateOf(days);
  Writer out(text);
  out.putName("SunMonTueWedThuFriSat", weekday);
  out.put(' ');
  out.putName("JanFebMarAprMayJunJulAugSepOctNovDec", date.month);
  out.put(' ');
  out.putTwo(date.day, ' ');
  out.put(' ');
  out.putTwo(second / 3600, '0');
  out.put(':');
  out.putTwo(second / 60 % 60, '0');
  out.put(':');
  out.putTwo(second % 60, '0');
  out.put(' ');
  out.putYear(date.year);
  out.put('\n');
  return out.size();
}

}  // namespace kl
