#pragma once
// dump_names.h: what the dump calls ids and values.

#include <cstddef>

namespace kl::container {

// Room for any text that is put together.
inline constexpr std::size_t kNameBytes = 80;

// The name of a field: of a known one its constant's, else name space and number, put together in `room`.  The
// type bits of the id do not matter.  Async-signal-safe.
const char* fieldName(unsigned int id, char (&room)[kNameBytes]);

// A u32 value by name, where the field has named values, else in decimal, in hexadecimal and as an IPv4 address, put
// together in `room`.  Async-signal-safe.
const char* valueName(unsigned int id, unsigned int value, char (&room)[kNameBytes]);

// The 16 bytes in hexadecimal, joined by ':'.  Async-signal-safe.
const char* addressText(const unsigned char* bytes, char (&room)[kNameBytes]);

}  // namespace kl::container
