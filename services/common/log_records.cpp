// Writes and reads the records on the socket of the log service.

#include "services/common/log_records.h"

#include "services/common/byte_order.h"

namespace common {
namespace {

constexpr unsigned int kControl = 0;  // in the place of a line's source
constexpr unsigned int kRegistration = 0;

void append(std::string& record, std::size_t field) {
  unsigned char bytes[2];
  storeBe16(bytes, field);
  record += static_cast<char>(bytes[0]);
  record += static_cast<char>(bytes[1]);
}

}  // namespace

std::string registrationRecord(unsigned int source, std::span<const unsigned short> topics) {
  std::string record;
  append(record, kRegistrationHeadBytes + 2 * topics.size());
  append(record, kControl);
  append(record, kRegistration);
  append(record, source);
  for (const unsigned short topic : topics) append(record, topic);
  return record;
}

std::string lineRecord(unsigned int source, std::string_view text) {
  std::string record;
  append(record, kLineHeadBytes + text.size());
  append(record, source);
  return record.append(text);
}

std::string muteRecord(unsigned int source, bool mutes) {
  std::string record;
  append(record, kMuteRecordBytes);
  append(record, source);
  append(record, mutes ? 1 : 0);
  return record;
}

unsigned int lengthOf(const unsigned char* record) { return loadBe16(record); }
unsigned int sourceOfLine(const unsigned char* record) { return loadBe16(record + 2); }
unsigned int kindOfControl(const unsigned char* record) { return loadBe16(record + 4); }
unsigned int sourceOfRegistration(const unsigned char* record) { return loadBe16(record + 6); }
unsigned short topicOf(const unsigned char* record, std::size_t index) {
  return static_cast<unsigned short>(loadBe16(record + kRegistrationHeadBytes + 2 * index));
}

MuteRecord readMuteRecord(const unsigned char* bytes) {
  return {loadBe16(bytes), loadBe16(bytes + 2), loadBe16(bytes + 4) != 0};
}

}  // namespace common
