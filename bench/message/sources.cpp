#include "bench/message/sources.h"

#include <cstdio>
#include <cstring>

namespace bench {
namespace {

std::string textOf(std::size_t size, unsigned int n) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) text += static_cast<char>('a' + (i * 7 + n) % 26);
  return text;
}

}  // namespace

W1Source w1Source(unsigned int n) {
  return {{24, 7}, {0x10003, 5}, 1, 0x1000 + n, 0xfe0002, 0xffffffff, 3 + n % 200, 200, true, textOf(12, n)};
}

W2Source w2Source(unsigned int n) {
  W2Source source{{n % 256, 1500, 7, 100'000 + n, 0, 255, 256, 0x80000000U + n},
                  {true, false, true, n % 2 == 0},
                  {textOf(8, n), textOf(12, n), textOf(24, n), textOf(40, n)},
                  0x1234567890abULL + n,
                  {},
                  {},
                  w1Source(n)};
  unsigned char address[16] = {0x20, 0x01, 0x0d, 0xb8};
  address[15] = static_cast<unsigned char>(n);
  static_assert(sizeof(source.address) == sizeof(address));
  std::memcpy(&source.address, address, sizeof(address));
  for (unsigned int i = 0; i < 64; ++i) source.key.push_back(static_cast<unsigned char>(i * 5 + n));
  return source;
}

std::vector<W2Source> w3Source() {
  std::vector<W2Source> sources;
  for (unsigned int n = 0; n < 100; ++n) sources.push_back(w2Source(n));
  return sources;
}

std::vector<std::string> flatSource(unsigned int fields) {
  std::vector<std::string> texts;
  for (unsigned int i = 0; i < fields; ++i) {
    char text[16];
    std::snprintf(text, sizeof(text), "%08u", i * 7919 % 100'000'000);
    texts.emplace_back(text);
  }
  return texts;
}

}  // namespace bench
