#pragma once
// links.h: the machine's network interfaces as the kernel describes them at this moment.

#include <map>
#include <string>
#include <vector>

#include "kl/message.h"

struct Link {
  std::string name;
  std::vector<unsigned char> hardwareAddress;  // empty where the interface has none
  std::vector<kl::IPAddr6> addresses;          // IPv6 only
  unsigned int mtu = 0;                        // bytes
  bool up = false;
  unsigned long long rxBytes = 0;
  unsigned long long txBytes = 0;
  unsigned long long rxPackets = 0;
  unsigned long long txPackets = 0;
};

// Every interface of this network namespace under its index, in ascending order.  Asks the kernel
// afresh each time; a kernel that does not answer leaves the table empty.
std::map<unsigned int, Link> readLinks();
