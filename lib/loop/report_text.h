#pragma once
// lib/loop/report_text.h: text of a crash report on its way to a descriptor, without allocation.

#include <cstddef>
#include <cstdint>

namespace kl {

// Collects text in a static buffer and writes it out when the buffer is full, on flush() and at its end.  There is one
// buffer: only one of these lives at a time.
//
// Async-signal-safe: write(2) only.  Errors of the descriptor are ignored.
class ReportText {
 public:
  explicit ReportText(int fd) : fd_(fd) {}
  ~ReportText() { flush(); }
  ReportText(const ReportText&) = delete;
  ReportText& operator=(const ReportText&) = delete;

  void put(const char* text);
  void put(const char* text, std::size_t size);

  // The prefix, the value in a base (any outside 2 to 36 counts as 10, digits above 9 are lower-case letters)
  // with leading zeros up to minDigits, and the suffix.
  void putNumber(const char* prefix, std::uint64_t value, unsigned int base, unsigned int minDigits,
                 const char* suffix);

  void putDecimal(const char* prefix, std::uint64_t value, const char* suffix) {
    putNumber(prefix, value, 10, 1, suffix);
  }

  // A register or an address: 8 hexadecimal digits on a 32-bit processor, 16 on a 64-bit one.
  void putWord(const char* prefix, std::uintptr_t value, const char* suffix) {
    putNumber(prefix, value, 16, 2 * sizeof value, suffix);
  }

  void flush();

 private:
  int fd_;
  std::size_t used_ = 0;
};

}  // namespace kl
