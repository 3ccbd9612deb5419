#pragma once
// kernel_view.h: the interfaces of this machine by roads that netif does not take: getifaddrs and /sys.

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <fstream>
#include <map>
#include <set>
#include <string>

#include "kl/message.h"

namespace kernel {

inline std::string sysText(const std::string& interface, const std::string& file) {
  std::string text;
  std::getline(std::ifstream("/sys/class/net/" + interface + "/" + file), text);
  return text;
}

inline unsigned long long sysNumber(const std::string& interface, const std::string& file) {
  const std::string text = sysText(interface, file);
  return text.empty() ? 0 : std::stoull(text, nullptr, 0);
}

// Names by index, as if_nameindex has them.
inline std::map<unsigned int, std::string> names() {
  std::map<unsigned int, std::string> result;
  struct if_nameindex* all = ::if_nameindex();
  for (auto* one = all; one != nullptr && one->if_index != 0; ++one) result[one->if_index] = one->if_name;
  ::if_freenameindex(all);
  return result;
}

// IFF_... of one interface; /sys leaves some of them out.
inline unsigned int flags(const std::string& interface) {
  unsigned int result = 0;
  ifaddrs* all = nullptr;
  if (::getifaddrs(&all) != 0) return result;
  for (const ifaddrs* one = all; one != nullptr; one = one->ifa_next)
    if (interface == one->ifa_name) result = one->ifa_flags;
  ::freeifaddrs(all);
  return result;
}

inline std::string addressText(const void* address) {
  char text[INET6_ADDRSTRLEN];
  return ::inet_ntop(AF_INET6, address, text, sizeof text);
}

// The IPv6 addresses of one interface, as text.
inline std::set<std::string> addresses(const std::string& interface) {
  std::set<std::string> result;
  ifaddrs* all = nullptr;
  if (::getifaddrs(&all) != 0) return result;
  for (const ifaddrs* one = all; one != nullptr; one = one->ifa_next) {
    if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_INET6 || interface != one->ifa_name)
      continue;
    result.insert(addressText(&reinterpret_cast<const sockaddr_in6*>(one->ifa_addr)->sin6_addr));
  }
  ::freeifaddrs(all);
  return result;
}

inline std::set<std::string> textOf(const std::vector<kl::IPAddr6>& addresses) {
  std::set<std::string> result;
  for (const kl::IPAddr6& address : addresses) result.insert(addressText(&address));
  return result;
}

// "02:fc:00:00:00:01", as /sys writes it.
inline std::string hardwareText(const std::vector<unsigned char>& bytes) {
  std::string text;
  char pair[4];
  for (const unsigned char byte : bytes) {
    (void)std::snprintf(pair, sizeof pair, text.empty() ? "%02x" : ":%02x", byte);
    text += pair;
  }
  return text;
}

}  // namespace kernel
