// Writes and reads the records on the socket of the log service.

#include "log/log_records.h"

#include "base/byte_order.h"

namespace kl::logging {
namespace {

constexpr unsigned int kControl = 0;  // in the place of a line's source
constexpr unsigned int kRegistration = 0;

}  // namespace

void putRegistration(unsigned char* record, unsigned int sourceId, std::span<const unsigned short> topics) {
  record = storeBe16(record, registrationBytes(static_cast<unsigned int>(topics.size())));
  record = storeBe16(record, kControl);
  record = storeBe16(record, kRegistration);
  record = storeBe16(record, sourceId);
  for (const unsigned short topic : topics) record = storeBe16(record, topic);
}

void putLineHead(unsigned char* record, unsigned int sourceId, unsigned int textBytes) {
  record = storeBe16(record, kLineHeadBytes + textBytes);
  storeBe16(record, sourceId);
}

MuteRecord readMuteRecord(const unsigned char* bytes) {
  return {loadBe16(bytes), loadBe16(bytes + 2), loadBe16(bytes + 4) != 0};
}

}  // namespace kl::logging
