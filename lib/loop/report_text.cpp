// Text of a crash report.  Async-signal-safe throughout: write(2) only.  No allocation, no streams.

#include "loop/report_text.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace kl {
namespace {

std::array<char, 1024> buffer;

constexpr std::size_t kMostDigits = 64;  // of a 64-bit value in base 2

// Async-signal-safe: write(2) only.
void writeAll(int fd, const char* text, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, text, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text += written;
    size -= static_cast<std::size_t>(written);
  }
}

}  // namespace

// Async-signal-safe: write(2) only.
void ReportText::put(const char* text) { put(text, std::strlen(text)); }

// Async-signal-safe: write(2) only.
void ReportText::put(const char* text, std::size_t size) {
  while (size > 0) {
    const std::size_t count = std::min(size, buffer.size() - used_);
    std::memcpy(buffer.data() + used_, text, count);
    used_ += count;
    text += count;
    size -= count;
    if (used_ == buffer.size()) flush();
  }
}

// Async-signal-safe: write(2) only.
void ReportText::putNumber(const char* prefix, std::uint64_t value, unsigned int base, unsigned int minDigits,
                           const char* suffix) {
  if (base < 2 || base > 36) base = 10;
  char digits[kMostDigits];
  std::size_t first = kMostDigits;
  const std::size_t latest = kMostDigits - std::min<std::size_t>(minDigits, kMostDigits);
  while (value != 0 || first > latest) {
    digits[--first] = "0123456789abcdefghijklmnopqrstuvwxyz"[value % base];
    value /= base;
  }
  put(prefix);
  put(digits + first, kMostDigits - first);
  put(suffix);
}

// Async-signal-safe: write(2) only.
void ReportText::flush() {
  writeAll(fd_, buffer.data(), used_);
  used_ = 0;
}

}  // namespace kl
