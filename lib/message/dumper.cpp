// The output stream over a fixed buffer.

#include <algorithm>
#include <cstring>

#include "kl/message.h"

namespace kl {
namespace {

constexpr char kDigits[] = "0123456789abcdef";

// Async-signal-safe: fills an array on the stack.
template <unsigned int digits>
void writeHex(Dumper& out, unsigned long long v) {
  char text[digits];
  for (unsigned int i = digits; i > 0; v >>= 4) text[--i] = kDigits[v & 15];
  out.write(text, digits);
}

}  // namespace

Dumper::Dumper(char* buffer, unsigned int capacity)
    : std::ostream(nullptr), buffer_(buffer), capacity_(capacity) {}

Dumper::~Dumper() = default;

// Async-signal-safe: copies bytes.
void Dumper::write(const char* p, unsigned int n) {
  const unsigned int fitting = std::min(n, capacity_ - used_);
  if (fitting != 0) std::memcpy(buffer_ + used_, p, fitting);
  used_ += fitting;
}

// Async-signal-safe.
Dumper& Dumper::operator<<(const char* s) {
  write(s, static_cast<unsigned int>(std::strlen(s)));
  return *this;
}

// Async-signal-safe.
Dumper& Dumper::operator<<(unsigned int v) {
  write("0x", 2);
  writeHex<8>(*this, v);
  return *this;
}

// Async-signal-safe.
Dumper& Dumper::operator<<(unsigned long long v) {
  write("0x", 2);
  writeHex<16>(*this, v);
  return *this;
}

// Async-signal-safe.
Dumper& Dumper::operator<<(unsigned char v) {
  writeHex<2>(*this, v);
  return *this;
}

template <>
std::ostream& doEndl<std::ostream>(std::ostream& out) {
  return out.put('\n').flush();
}

// Async-signal-safe.
template <>
Dumper& doEndl<Dumper>(Dumper& out) {
  out.write("\n", 1);
  return out;
}

}  // namespace kl
