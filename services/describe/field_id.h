#pragma once
// field_id.h: field ids as a user writes and reads them.
//
//     u32:5           number 5 of the name space "global"
//     string[]:std.9  number 9 of the name space "std", an array
//     raw:0x12.7      number 7 of a name space that has no word
//     0x0a000005      a whole id, for those whose mark bits a form above cannot express

#include <optional>
#include <string>

namespace describe {

// Types, as the top five bits of an id.
inline constexpr unsigned int kTypeMask = 0xf8000000;
inline constexpr unsigned int kArrayBit = 0x80000000;
// The rest of an id: name space and number.
inline constexpr unsigned int kTypelessId = 0x00ffffff;
enum FieldType : unsigned int {
  kBool = 0x00000000,
  kU32 = 0x08000000,
  kU64 = 0x10000000,
  kAddr6 = 0x18000000,
  kString = 0x20000000,
  kMessage = 0x28000000,
  kRaw = 0x30000000,
};

inline bool isArray(unsigned int id) { return (id & kArrayBit) != 0; }
inline FieldType elementType(unsigned int id) { return static_cast<FieldType>(id & kTypeMask & ~kArrayBit); }

// "u32", "string[]"; empty for a type that no field has.
std::string typeWord(unsigned int id);

// Reads one of the four forms; nothing when the text is none of them.
std::optional<unsigned int> parseFieldId(const std::string& text);

// The form that parseFieldId reads back as the same id.
std::string fieldIdText(unsigned int id);

// A whole number in decimal or, after "0x", in hexadecimal, without sign or blanks, at most `max`.
std::optional<unsigned long long> parseNumber(const std::string& text, unsigned long long max);

}  // namespace describe
