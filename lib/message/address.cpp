// Addresses from and to text, by the C library's functions for both families.

#include "kl/address.h"

#include <arpa/inet.h>

#include <algorithm>

namespace kl {
namespace {

// The bytes in front of the four of an IPv4 address.
constexpr unsigned char kIPv4Prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

}  // namespace

bool isIPv4(const IPAddr6& address) {
  return std::memcmp(address.bytes, kIPv4Prefix, sizeof kIPv4Prefix) == 0;
}

std::string addressText(const IPAddr6& address) {
  char text[INET6_ADDRSTRLEN];
  if (isIPv4(address)) return ::inet_ntop(AF_INET, address.bytes + sizeof kIPv4Prefix, text, sizeof text);
  return ::inet_ntop(AF_INET6, address.bytes, text, sizeof text);
}

std::optional<IPAddr6> parseAddress(std::string_view text) {
  char terminated[INET6_ADDRSTRLEN] = {};
  if (text.size() >= sizeof terminated || text.find('\0') != text.npos) return std::nullopt;
  std::copy(text.begin(), text.end(), terminated);
  IPAddr6 address;
  if (::inet_pton(AF_INET6, terminated, address.bytes) == 1) return address;
  std::copy(std::begin(kIPv4Prefix), std::end(kIPv4Prefix), address.bytes);
  if (::inet_pton(AF_INET, terminated, address.bytes + sizeof kIPv4Prefix) == 1) return address;
  return std::nullopt;
}

}  // namespace kl
