#pragma once
// log_records.h: the records on the socket of the log service.
//
// Every field has 16 bits, the high byte first.  Records follow each other without anything between them.
//
//   registration, to the service:   length 8 + 2 * topics | 0 | 0 | source | topics, in the order of the list
//   line, to the service:           length 4 + text       | source         | the text
//   mute, from the service:         length 6              | source         | 0: it wants the lines again
//
// Source 5 with the topics 16 and 4, then its line "abc", and the answer that mutes it:
//   000c 0000 0000 0005 0010 0004
//   0007 0005 616263
//   0006 0005 0001
// Held by LogRecords.AreThoseOfTheDocument.

#include <span>

namespace kl::logging {

inline constexpr unsigned int kMostRecordBytes = 65535;
inline constexpr unsigned int kRegistrationHeadBytes = 8;
inline constexpr unsigned int kLineHeadBytes = 4;
inline constexpr unsigned int kMuteRecordBytes = 6;
inline constexpr unsigned int kMostTopics = (kMostRecordBytes - kRegistrationHeadBytes) / 2;
inline constexpr unsigned int kMostTextBytes = kMostRecordBytes - kLineHeadBytes;

constexpr unsigned int registrationBytes(unsigned int topicCount) {
  return kRegistrationHeadBytes + 2 * topicCount;
}

// Writes the whole record.  Needs: room for registrationBytes(topics.size()), at most kMostTopics topics.
void putRegistration(unsigned char* record, unsigned int sourceId, std::span<const unsigned short> topics);

// Writes what stands in front of the text.  Needs: at most kMostTextBytes bytes of text.
void putLineHead(unsigned char* record, unsigned int sourceId, unsigned int textBytes);

struct MuteRecord {
  unsigned int length;  // kMuteRecordBytes, or it is not one
  unsigned int sourceId;
  bool mutes;
};

// Reads kMuteRecordBytes bytes.
MuteRecord readMuteRecord(const unsigned char* bytes);

}  // namespace kl::logging
