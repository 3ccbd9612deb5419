// Lines pass as soon as they are whole, and the beginning of a line as well, with one exception: what may become the
// line of a signal waits for the rest of it, together with the line before it that came at the same time.
//
// RC1  while report_ is empty, all that was taken has been passed on but waiting_
// RC2  waiting_ begins a line, and is a whole one at most and a part of the line of a signal

#include "crashes/report_catcher.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <utility>

namespace loader {
namespace {

constexpr std::string_view kHead = "--- signal=";
constexpr std::string_view kTail = " --------------------------------------------";
constexpr std::string_view kDied = "died with signal ";
constexpr std::size_t kMostDigits = 3;
constexpr std::size_t kMostOfLine = 512;  // that are remembered: a path is cut in the report anyway

std::size_t digitsIn(std::string_view text) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  const auto end = std::find_if_not(text.begin(), text.end(), isDigit);
  return static_cast<std::size_t>(end - text.begin());
}

unsigned int numberAt(std::string_view text) {
  unsigned int number = 0;
  (void)std::from_chars(text.data(), text.data() + std::min(text.size(), kMostDigits), number);
  return number;
}

bool isBeginningOf(std::string_view text, std::string_view whole) { return whole.starts_with(text); }

// The line of a signal, or the beginning of one.
bool mayBeHead(std::string_view line) {
  if (line.size() <= kHead.size()) return isBeginningOf(line, kHead);
  if (!line.starts_with(kHead)) return false;
  const std::string_view rest = line.substr(kHead.size());
  const std::size_t digits = digitsIn(rest);
  return digits > 0 && digits <= kMostDigits && isBeginningOf(rest.substr(digits), kTail);
}

// Its number; 0 for any other line.
unsigned int signalOf(std::string_view line) {
  return mayBeHead(line) && line.ends_with(kTail) ? numberAt(line.substr(kHead.size())) : 0;
}

bool isFatal(unsigned int signal) { return signal != 0 && signal != SIGUSR2; }

}  // namespace

std::string ReportCatcher::take(std::string_view bytes) {
  if (!report_.empty()) return takeReport(bytes);
  std::string text = std::exchange(waiting_, {}) + std::string(bytes);
  std::size_t passes = 0;  // what comes before is ordinary; then the line before this one, if it is whole
  std::size_t at = 0;
  for (std::size_t end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
    const std::string_view line = std::string_view(text).substr(at, end - at);
    if (isAtLine_ && isFatal(signalOf(line))) {
      signal_ = signalOf(line);
      report_ = lineSoFar_ + "\n";
      return text.substr(0, passes) + takeReport(std::string_view(text).substr(at));
    }
    passes = isAtLine_ ? at : end + 1;
    remember(line);
    if (lineSoFar_.starts_with(kDied)) signal_ = numberAt(std::string_view(lineSoFar_).substr(kDied.size()));
    isAtLine_ = true;
  }
  const std::string_view rest = std::string_view(text).substr(at);
  const bool mayFollow = isAtLine_ && !rest.empty() && mayBeHead(rest);
  if (mayFollow) waiting_ = text.substr(passes);
  if (mayFollow) text.resize(passes);
  else if (!rest.empty()) remember(rest);
  return text;
}

// One that grows too long is none.
std::string ReportCatcher::takeReport(std::string_view bytes) {
  report_ += bytes;
  if (report_.size() <= kMostBytes) return {};
  signal_ = 0;
  lineSoFar_.clear();
  isAtLine_ = report_.back() == '\n';
  return std::exchange(report_, {});
}

Caught ReportCatcher::end() {
  Caught caught{std::exchange(report_, {}), std::exchange(signal_, 0), std::exchange(waiting_, {})};
  lineSoFar_.clear();
  isAtLine_ = true;
  return caught;
}

// The part of a line that has come.
void ReportCatcher::remember(std::string_view part) {
  if (std::exchange(isAtLine_, false)) lineSoFar_.clear();
  lineSoFar_ += part.substr(0, kMostOfLine - std::min(lineSoFar_.size(), kMostOfLine));
}

}  // namespace loader
