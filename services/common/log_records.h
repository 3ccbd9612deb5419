#pragma once
// log_records.h: the records on the socket of the log service, for the companions at both of its ends.
//
// Every field has 16 bits, the high byte first.  Records follow each other without anything between them.
//
//   registration, to the service:   length 8 + 2 * topics | 0 | 0 | source | topics, in the order of the list
//   line, to the service:           length 4 + text       | source, not 0  | the text
//   mute, from the service:         length 6              | source         | 0: it wants the lines again
//
// Source 5 with the topics 16 and 4, then its line "abc", and the answer that mutes it:
//   000c 0000 0000 0005 0010 0004
//   0007 0005 616263
//   0006 0005 0001
// Held by CompanionLogRecords.AreThoseOfTheDocument.

#include <span>
#include <string>
#include <string_view>

namespace common {

inline constexpr std::size_t kRegistrationHeadBytes = 8;
inline constexpr std::size_t kLineHeadBytes = 4;  // no record is shorter
inline constexpr std::size_t kMuteRecordBytes = 6;

// Whole records.  Needs: their length fits its field.
std::string registrationRecord(unsigned int source, std::span<const unsigned short> topics);
std::string lineRecord(unsigned int source, std::string_view text);
std::string muteRecord(unsigned int source, bool mutes);

// The fields of a record that has come.  Needs: the bytes that they stand in.
unsigned int lengthOf(const unsigned char* record);
unsigned int sourceOfLine(const unsigned char* record);   // 0: it is no line
unsigned int kindOfControl(const unsigned char* record);  // 0: a registration
unsigned int sourceOfRegistration(const unsigned char* record);
unsigned short topicOf(const unsigned char* record, std::size_t index);

struct MuteRecord {
  unsigned int length;  // kMuteRecordBytes, or it is not one
  unsigned int source;
  bool mutes;
};

// Reads kMuteRecordBytes bytes.
MuteRecord readMuteRecord(const unsigned char* bytes);

}  // namespace common
