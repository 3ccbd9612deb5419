// The bytes of an index slot and of a record's length.
//
//     index, slot i at 12 * i        | data, a slot's record
//     offset size                    | offset size
//          0    4  id                |      0    2  length, itself included
//          4    4  size of the slot  |      2       the flattened message
//          8    4  lifetime          |
//
// Little-endian on every processor; the older layout has the same fields big-endian.
// Held by StoreFormat.SlotsAreLittleEndian and StoreFormat.TheOlderLayoutIsBigEndian.

#include "store/files/format.h"

namespace kl {
namespace {

void putWord(unsigned char* to, unsigned int word) {
  for (unsigned int i = 0; i < 4; ++i) to[i] = static_cast<unsigned char>(word >> (8 * i));
}

// Compilers make one load of it, which a store's opening does three times a slot.
unsigned int word(const unsigned char* from, ByteOrder order) {
  const unsigned int little = static_cast<unsigned int>(from[0]) | static_cast<unsigned int>(from[1]) << 8 |
                              static_cast<unsigned int>(from[2]) << 16 |
                              static_cast<unsigned int>(from[3]) << 24;
  return order == ByteOrder::kBig ? __builtin_bswap32(little) : little;
}

}  // namespace

SlotBytes encodeSlot(const SlotRecord& record) {
  SlotBytes bytes;
  putWord(&bytes[0], record.id);
  putWord(&bytes[4], record.size);
  putWord(&bytes[8], record.lifetime);
  return bytes;
}

SlotRecord decodeSlot(const unsigned char* bytes, ByteOrder order) {
  return {word(bytes, order), word(bytes + 4, order), word(bytes + 8, order)};
}

LengthBytes encodeLength(std::size_t payloadBytes) {
  const std::size_t length = payloadBytes + kLengthBytes;
  return {static_cast<unsigned char>(length), static_cast<unsigned char>(length >> 8)};
}

unsigned int decodeLength(const unsigned char* bytes, ByteOrder order) {
  const unsigned int high = order == ByteOrder::kBig ? 0 : 1;
  return static_cast<unsigned int>(bytes[high] << 8 | bytes[1 - high]);
}

}  // namespace kl
