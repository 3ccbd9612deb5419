// A line is collected in pieces and leaves whole.  In a gap nothing is converted and nothing handed over, so a service
// that floods costs no more than a walk over its bytes.
//
// G1  missing_ > 0 while the timer of the gap runs, and only then
// G2  no line passes between the first one that is missing and the line that tells their number

#include "logging/output_lines.h"

#include <algorithm>

#include "kl/utilities.h"

namespace loader {
namespace {

bool isControl(unsigned char byte) { return byte < 0x20 || byte == 0x7f; }
bool isInsideCharacter(unsigned char byte) { return (byte & 0xc0) == 0x80; }

// U+2400 to U+241F, and U+2421.
std::string pictureOf(unsigned char control) {
  const auto last = static_cast<char>(0x80 + (control == 0x7f ? 0x21 : control));
  return std::string("\xe2\x90") + last;
}

std::string harmless(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == '\t') shown += ' ';
    else if (isControl(byte)) shown += pictureOf(byte);
    else shown += c;
  }
  return shown;
}

// The last character of a line that is cut stays whole where it is one.
std::size_t endOfCharacters(std::string_view line) {
  constexpr std::size_t kMostOfCharacter = 4;
  std::size_t end = line.size();
  while (end > 0 && line.size() - end < kMostOfCharacter &&
         isInsideCharacter(static_cast<unsigned char>(line[end - 1])))
    --end;
  const bool beginsOne = end > 0 && static_cast<unsigned char>(line[end - 1]) >= 0xc0;
  return beginsOne && end > 1 ? end - 1 : line.size();
}

}  // namespace

OutputLines::OutputLines(kl::ThinRunner& runner, Log& log, Stream stream)
    : log_(log), stream_(stream), gap_(runner, *this) {}

void OutputLines::take(std::string_view bytes) {
  if (speaker_.empty()) return;
  while (!bytes.empty()) {
    const std::size_t length = pieceOf(bytes);
    line_ += bytes.substr(0, length);
    bytes.remove_prefix(length);
    const bool isWhole = !bytes.empty() && bytes.front() == '\n';
    if (isWhole) bytes.remove_prefix(1);
    if (isWhole) endLine();
    else if (line_.size() == kMostLineBytes) cutLine();
  }
}

// Up to the end of the line, as much as still fits into it.
std::size_t OutputLines::pieceOf(std::string_view bytes) const {
  const std::string_view fitting = bytes.substr(0, kMostLineBytes - line_.size());
  return std::min(fitting.find('\n'), fitting.size());
}

void OutputLines::end() {
  endLine();
  gap_.cancel();
  if (missing_ > 0) onGapOver();
}

void OutputLines::endLine() {
  if (line_.ends_with('\r')) line_.pop_back();
  if (!line_.empty()) logText(line_);
  line_.clear();
}

void OutputLines::cutLine() {
  const std::size_t end = endOfCharacters(line_);
  logText(std::string_view(line_).substr(0, end));
  line_.erase(0, end);
}

void OutputLines::logText(std::string_view text) {
  const bool isLogged = missing_ == 0 && pace_.admitOne(kl::getJiffies()) &&
                        log_.output(stream_, speaker_ + ": " + harmless(text));
  if (isLogged) return;
  if (++missing_ == 1) gap_.start(gapTicks_);  // G1
}

void OutputLines::onGapOver() {
  if (!log_.output(stream_, speaker_ + ": " + std::to_string(missing_) + " lines not logged")) {
    gapTicks_ = std::min(2 * gapTicks_, kLongestGapTicks);
    return gap_.start(gapTicks_);
  }
  missing_ = 0;
  gapTicks_ = kShortestGapTicks;
}

}  // namespace loader
