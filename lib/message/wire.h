#pragma once
// wire.h: reads the byte formats into a representation.

#include "message/rep.h"

namespace kl::container {

// Are values copied out of the bytes, or do they stay there?  A borrowing message is read and dropped while the bytes
// last.
enum class Reading { copying, borrowing };

enum class Outcome { ok, fault, noRoom };

// Both add the fields to the representation, and keep those read before a fault.  noRoom: an arena cannot hold
// the next field.  Needs: at least 2 bytes for readLegacy.
Outcome readFormat(message::Rep& rep, const unsigned char* data, std::size_t len, message::flatten_type type,
                   Reading reading);
Outcome readLegacy(message::Rep& rep, const unsigned char* data, std::size_t len, Reading reading);

// Writes the flattened form and returns the place behind it.  Needs: room for maxLength().
unsigned char* writeFormat(const message::Rep& rep, unsigned char* to);

// True if one more field of so many bytes is sure to find room in an arena.
inline bool hasRoomForField(const message::Rep& rep, std::size_t valueBytes) {
  const Arena* arena = rep.memory.arena();
  return arena == nullptr || arena->room() >= rep.arenaCostOfField() + roundedUp(valueBytes);
}

}  // namespace kl::container
