// Every number has its low byte first, and every block and option ends at a multiple of 4 bytes.
//
//     block        u32 type, u32 bytes of the block, body, u32 bytes of the block
//     option       u16 code, u16 bytes of the value, value, zeros; the last one has the code 0 and no value
//
//     section      0x0a0d0d0a   u32 0x1a2b3c4d, u16 1, u16 0, u64 -1: bytes of the section, which nobody knows yet
//                               options 4 application, 1 comment
//     interface    1            u16 link type, u16 0, u32 most bytes of a packet
//                               options 2 name, 9 unit of times: 6 for 10^-6 s
//     packet       6            u32 interface, u32 high and u32 low half of the time, u32 bytes, u32 length, the bytes, zeros
//                               option 1 comment
//     statistics   5            u32 interface, u32 high and u32 low half of the time
//                               options 2 begin, 3 end, as the time; 4 received, 5 lost: u64
//
// An interface that is called "a" is
//
//     01 00 00 00  28 00 00 00  93 00 00 00  00 00 00 00
//     02 00 01 00  61 00 00 00  09 00 01 00  06 00 00 00
//     00 00 00 00  28 00 00 00

#include "output/pcapng.h"

#include <algorithm>

#include "kl/records.h"
#include "services/common/byte_order.h"

namespace klctl::pcapng {
namespace {

enum Type : unsigned int { kInterface = 1, kStatistics = 5, kPacket = 6, kSection = 0x0a0d0d0a };
enum Code : unsigned int { kEnd = 0, kComment = 1, kName = 2, kApplication = 4, kTimeUnit = 9 };
enum StatisticsCode : unsigned int { kBegin = 2, kFinish = 3, kReceived = 4, kLost = 5 };

constexpr unsigned int kByteOrder = 0x1a2b3c4d;
constexpr unsigned int kUnknown = 0xffffffff;
constexpr char kMicroseconds = 6;
constexpr std::size_t kBlockBytes = 12;  // around a body

std::string u16(std::size_t value) {
  unsigned char bytes[2];
  common::storeLe16(bytes, value);
  return {bytes, bytes + sizeof bytes};
}

std::string u32(std::size_t value) {
  unsigned char bytes[4];
  common::storeLe32(bytes, value);
  return {bytes, bytes + sizeof bytes};
}

std::string low(unsigned long long value) { return u32(static_cast<unsigned int>(value)); }
std::string high(unsigned long long value) { return u32(static_cast<unsigned int>(value >> 32)); }
std::string time(unsigned long long at) { return high(at) + low(at); }
std::string u64(unsigned long long value) { return low(value) + high(value); }

std::string padded(std::string bytes) {
  bytes.resize((bytes.size() + 3) / 4 * 4);
  return bytes;
}

std::string option(Code code, const std::string& value) {
  const std::string shown = value.substr(0, kMostText);
  return u16(code) + u16(shown.size()) + padded(shown);
}

std::string option(StatisticsCode code, const std::string& value) {
  return option(static_cast<Code>(code), value);
}

std::string comment(const std::string& text) { return text.empty() ? "" : option(kComment, text); }

// Where there are no options there is no end of them, either.
std::string block(Type type, const std::string& body, const std::string& options) {
  const std::string content = padded(body) + options + (options.empty() ? "" : option(kEnd, ""));
  const std::string size = u32(content.size() + kBlockBytes);
  return u32(type) + size + content + size;
}

}  // namespace

std::size_t blockBytes(const char* block) {
  return kl::readLe32(reinterpret_cast<const unsigned char*>(block) + 4);
}

std::string section(const std::string& application, const std::string& text) {
  return block(kSection, u32(kByteOrder) + u16(1) + u16(0) + u32(kUnknown) + u32(kUnknown),
               option(kApplication, application) + comment(text));
}

std::string interface(const std::string& name, unsigned int mostBytes) {
  return block(kInterface, u16(kLinkType) + u16(0) + u32(mostBytes),
               option(kName, name) + option(kTimeUnit, {kMicroseconds}));
}

std::string packet(const Packet& packet) {
  const std::string bytes(packet.bytes.begin(), packet.bytes.end());
  const std::size_t length = std::max(packet.length, bytes.size());
  return block(kPacket, u32(packet.interface) + time(packet.at) + u32(bytes.size()) + u32(length) + bytes,
               comment(packet.comment));
}

std::string statistics(const Statistics& seen) {
  return block(kStatistics, u32(seen.interface) + time(seen.end),
               option(kBegin, time(seen.begin)) + option(kFinish, time(seen.end)) +
                   option(kReceived, u64(seen.received)) + option(kLost, u64(seen.lost)));
}

}  // namespace klctl::pcapng
