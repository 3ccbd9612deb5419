#pragma once
// format.h: the bytes of an index slot and of a record's length, in both byte orders.

#include <array>
#include <cstddef>

namespace kl {

enum class ByteOrder { kLittle, kBig };  // kBig: the older layout

constexpr unsigned int kFreeId = 0xFFFFFFFF;
constexpr std::size_t kSlotRecordBytes = 12;
constexpr std::size_t kLengthBytes = 2;

using SlotBytes = std::array<unsigned char, kSlotRecordBytes>;
using LengthBytes = std::array<unsigned char, kLengthBytes>;

// Slot record i lies at byte 12 * i of the index.
struct SlotRecord {
  unsigned int id;        // kFreeId: a free slot
  unsigned int size;      // of the slot in the data file, in bytes
  unsigned int lifetime;  // kept in free slots, too

  bool isFree() const { return id == kFreeId; }
};

SlotBytes encodeSlot(const SlotRecord& record);
SlotRecord decodeSlot(const unsigned char* bytes, ByteOrder order);

// The number of bytes of a record, these two included: the low 16 bits of payloadBytes + 2.
LengthBytes encodeLength(std::size_t payloadBytes);
unsigned int decodeLength(const unsigned char* bytes, ByteOrder order);

}  // namespace kl
