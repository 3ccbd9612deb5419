#pragma once
// pcapng.h: the blocks of a capture file, as Wireshark and its relatives read them.

#include <cstddef>
#include <span>
#include <string>

namespace klctl::pcapng {

// Link type USER0: what is in a packet is agreed upon elsewhere (docs/descriptions.md).
inline constexpr unsigned int kLinkType = 147;
inline constexpr std::size_t kMostText = 4096;  // bytes of a text; what is longer is cut

// How long the block is that begins there.  Needs: one that was made here.
std::size_t blockBytes(const char* block);

// The first block: who has written the file, and what is in it.
std::string section(const std::string& application, const std::string& comment);

// One more interface; the first one is 0.  `mostBytes` of each packet are captured, 0: all.
std::string interface(const std::string& name, unsigned int mostBytes);

// A packet that was seen at `at`, in us since 1970, or the beginning of one of `length` bytes.
struct Packet {
  unsigned int interface = 0;
  unsigned long long at = 0;
  std::span<const unsigned char> bytes;
  std::size_t length = 0;
  std::string comment;  // empty: none
};
std::string packet(const Packet& packet);

// The packets that came from an interface in the time of the capture, and those that are missing.
struct Statistics {
  unsigned int interface = 0;
  unsigned long long begin = 0;
  unsigned long long end = 0;
  unsigned long long received = 0;
  unsigned long long lost = 0;
};
std::string statistics(const Statistics& statistics);

}  // namespace klctl::pcapng
