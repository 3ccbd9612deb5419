#pragma once
// sources.h: the data that the benchmarked messages carry, as a service would hold it, and the field
// ids under which they travel.
//
// W1  a small request: two paths of two, six numbers, a flag, a short text
// W2  an object: eight numbers, four flags, four texts of 8 to 40, a long number, an address, 64
//     bytes, and a W1 inside
// W3  a table: a hundred W2
// flat(n)  n texts of eight characters

#include <string>
#include <vector>

#include "kl/message.h"

namespace bench {

struct W1Source {
  std::vector<unsigned int> to, from;
  unsigned int type, requestId, command, policy, object, speed;
  bool replyExpected;
  std::string user;
};

struct W2Source {
  unsigned int numbers[8];
  bool flags[4];
  std::string texts[4];
  unsigned long long bytesIn;
  kl::IPAddr6 address;
  std::vector<unsigned char> key;
  W1Source origin;
};

// `n` makes messages that differ in their values but not in their sizes.
W1Source w1Source(unsigned int n);
W2Source w2Source(unsigned int n);
std::vector<W2Source> w3Source();
std::vector<std::string> flatSource(unsigned int fields);

namespace id {

inline constexpr unsigned int kTo = 0x88ff0001, kFrom = 0x88ff0002;
inline constexpr unsigned int kType = 0x08ff0003, kRequestId = 0x08ff0006, kCommand = 0x08ff0007,
                              kPolicy = 0x08ff000b, kObject = 0x08fe0001, kSpeed = 0x08000005;
inline constexpr unsigned int kReplyExpected = 0x00ff0005;
inline constexpr unsigned int kUser = 0x20ff000a;

inline constexpr unsigned int kNumber = 0x08000001;  // and the seven that follow
inline constexpr unsigned int kFlag = 0x00000011;    // and the three that follow
inline constexpr unsigned int kText = 0x20000021;    // and the three that follow
inline constexpr unsigned int kBytesIn = 0x10000031, kAddress = 0x18000032, kKey = 0x30000033,
                              kOrigin = 0x28000034;

inline constexpr unsigned int kObjects = 0xa8fe0002;
inline constexpr unsigned int kFlat = 0x20000000;  // and as many as there are fields

}  // namespace id
}  // namespace bench
