#include "log/log_records.h"

namespace kl::logging {
namespace {

constexpr unsigned int kControl = 0;  // in the place of a line's source
constexpr unsigned int kRegistration = 0;

unsigned char* putField(unsigned char* to, unsigned int value) {
  to[0] = static_cast<unsigned char>(value >> 8);
  to[1] = static_cast<unsigned char>(value);
  return to + 2;
}

unsigned int fieldAt(const unsigned char* from) { return static_cast<unsigned int>(from[0] << 8 | from[1]); }

}  // namespace

void putRegistration(unsigned char* record, unsigned int sourceId, std::span<const unsigned short> topics) {
  record = putField(record, registrationBytes(static_cast<unsigned int>(topics.size())));
  record = putField(record, kControl);
  record = putField(record, kRegistration);
  record = putField(record, sourceId);
  for (const unsigned short topic : topics) record = putField(record, topic);
}

void putLineHead(unsigned char* record, unsigned int sourceId, unsigned int textBytes) {
  record = putField(record, kLineHeadBytes + textBytes);
  putField(record, sourceId);
}

MuteRecord readMuteRecord(const unsigned char* bytes) {
  return {fieldAt(bytes), fieldAt(bytes + 2), fieldAt(bytes + 4) != 0};
}

}  // namespace kl::logging
