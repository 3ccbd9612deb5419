#pragma once
// format.h: the bytes of a slot in the index and of a blob's length, in both byte orders.

#include <sys/types.h>

#include <array>
#include <cstddef>

namespace kl {

enum class ByteOrder { kLittle, kBig };  // kBig: the older layout

constexpr unsigned int kFreeId = 0xFFFFFFFF;
constexpr std::size_t kSlotBytes = 12;  // of a slot in the index
constexpr std::size_t kLengthBytes = 2;

using SlotBytes = std::array<unsigned char, kSlotBytes>;
using LengthBytes = std::array<unsigned char, kLengthBytes>;

// A slot as the index describes it.
struct IndexSlot {
  unsigned int id;        // of the entry in it; kFreeId: the slot is free
  unsigned int size;      // of the slot in the data file, in bytes
  unsigned int lifetime;  // kept in free slots, too

  bool isFree() const { return id == kFreeId; }
};

// Slot i lies at byte 12 * i of the index.
constexpr off_t offsetInIndex(unsigned int slot) {
  return static_cast<off_t>(slot) * static_cast<off_t>(kSlotBytes);
}

SlotBytes encodeSlot(const IndexSlot& slot);
IndexSlot decodeSlot(const unsigned char* bytes, ByteOrder order);

// The number of bytes of a blob, these two included: the low 16 bits of payloadBytes + 2.
LengthBytes encodeLength(std::size_t payloadBytes);
unsigned int decodeLength(const unsigned char* bytes, ByteOrder order);

}  // namespace kl
