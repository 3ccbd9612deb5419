#pragma once
// kl/address.h: network addresses from and to text.

#include <optional>
#include <string>
#include <string_view>

#include "kl/export.h"
#include "kl/message.h"

namespace kl {

// An IPv4 address is held as the IPv6 address ::ffff:a.b.c.d and written as a.b.c.d:
//
//     if (const auto address = kl::parseAddress("192.0.2.1")) {
//       m.insert(GATEWAY, *address);
//       kl::isIPv4(*address);         // true
//       kl::addressText(*address);    // "192.0.2.1"
//     }
//     kl::addressText(*kl::parseAddress("2001:DB8:0:0::1"));    // "2001:db8::1"
//
// Errors:    text that is no address gives none; nothing is printed.
// Ownership: values.
// Threads:   any.
// Cost:      no allocation but the text's own.

// Is it ::ffff:a.b.c.d?
KL_API bool isIPv4(const IPAddr6& address);

// The shortest usual text: lower case, the longest run of zeros as "::".
KL_API std::string addressText(const IPAddr6& address);

// The address that the whole text stands for: "2001:db8::1", "::ffff:192.0.2.1" or "192.0.2.1".  Blanks, zones
// ("%eth0"), prefix lengths ("/64") and IPv4 addresses with fewer than four numbers or with leading zeros are no part
// of an address.
[[nodiscard]] KL_API std::optional<IPAddr6> parseAddress(std::string_view text);

}  // namespace kl
