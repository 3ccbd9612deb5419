#pragma once
// links.h: the machine's network interfaces, and how the kernel is asked for all of them.

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kl/message.h"

// An address of an interface.  All three together tell it from the others: one machine may use the same
// address towards several neighbours.
struct Address {
  kl::IPAddr6 own;    // an IPv4 address as ::ffff:a.b.c.d
  kl::IPAddr6 other;  // the neighbour's on a point-to-point link; else the own one once more
  unsigned char prefixLength = 0;

  bool isIPv4() const;
  friend bool operator==(const Address&, const Address&) = default;
  friend bool operator<(const Address& a, const Address& b);
};

struct Counters {
  unsigned long long rxBytes = 0;
  unsigned long long txBytes = 0;
  unsigned long long rxPackets = 0;
  unsigned long long txPackets = 0;
};

struct Link {
  std::string name;
  std::vector<unsigned char> hardwareAddress;  // empty where the interface has none
  std::set<Address> addresses;
  unsigned int mtu = 0;  // bytes
  bool up = false;       // somebody switched it on
  bool running = false;  // and its other end is there
  Counters counters;

  // The same, but for the counters, which never stand still.
  bool looksLike(const Link& other) const;
};

// Interfaces under their index.
using Links = std::map<unsigned int, Link>;

// Every interface of this network namespace.  Asks the kernel afresh each time; nothing when it does not answer.  A
// table that changes each time while it is read is given as it was last seen: what stood still may be missing in it,
// and `*isWhole` is false.
std::optional<Links> readLinks(bool* isWhole = nullptr);
