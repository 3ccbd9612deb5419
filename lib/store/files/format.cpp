// The bytes of a slot in the index and of a blob's length.
//
//     index, slot i at 12 * i        | data, the blob of a slot
//     offset size                    | offset size
//          0    4  id                |      0    2  length, itself included
//          4    4  size of the slot  |      2       the flattened message
//          8    4  lifetime          |
//
// Little-endian on every processor; the older layout has the same fields big-endian.
// Held by StoreFormat.SlotsAreLittleEndian and StoreFormat.TheOlderLayoutIsBigEndian.

#include "store/files/format.h"

#include "base/byte_order.h"

namespace kl {
namespace {

unsigned int word(const unsigned char* from, ByteOrder order) {
  return order == ByteOrder::kBig ? loadBe32(from) : loadLe32(from);
}

}  // namespace

SlotBytes encodeSlot(const IndexSlot& slot) {
  SlotBytes bytes;
  storeLe32(&bytes[0], slot.id);
  storeLe32(&bytes[4], slot.size);
  storeLe32(&bytes[8], slot.lifetime);
  return bytes;
}

IndexSlot decodeSlot(const unsigned char* bytes, ByteOrder order) {
  return {word(bytes, order), word(bytes + 4, order), word(bytes + 8, order)};
}

LengthBytes encodeLength(std::size_t payloadBytes) {
  LengthBytes bytes;
  storeLe16(bytes.data(), payloadBytes + kLengthBytes);
  return bytes;
}

unsigned int decodeLength(const unsigned char* bytes, ByteOrder order) {
  return order == ByteOrder::kBig ? loadBe16(bytes) : loadLe16(bytes);
}

}  // namespace kl
