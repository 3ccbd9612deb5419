#pragma once
// hex.h: bytes as text, for expectations that are read by eye.

#include <string>
#include <string_view>
#include <vector>

namespace kl::test {

// "4d32 05" for {0x4d, 0x32, 0x05}: bytes in pairs, a blank after every second one.
std::string hex(const std::vector<unsigned char>& bytes);

// The bytes that the hexadecimal digits of `text` name; everything else in it is decoration, so
// that expectations can be grouped with blanks and bars.
std::vector<unsigned char> bytes(std::string_view text);

}  // namespace kl::test
