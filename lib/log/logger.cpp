// Lines on their way into records.
//
// The registration of a source precedes its lines on every connection.  A record is put together on the stack; a long
// text stays in the caller's memory.

#include "kl/logger.h"

#include <cstring>

#include "base/report.h"
#include "log/log_records.h"
#include "log/parts.h"

namespace kl {
namespace {

// A record of up to so many bytes is copied together and sent with a plain write, which costs less than gathering.
constexpr unsigned int kSmallRecordBytes = 512;

}  // namespace

void Logger::log(Source* source, const char* text, unsigned int length) {
  while (length > logging::kMostTextBytes) {
    logRecord(*source, text, logging::kMostTextBytes);
    text += logging::kMostTextBytes;
    length -= logging::kMostTextBytes;
  }
  logRecord(*source, text, length);
}

void Logger::logRecord(Source& source, const char* text, unsigned int length) {
  if (source.muted) return;
  if (!source.registered && !sendRegistration(&source)) {
    // Kept on purpose: the spelling, which people and their tools search for.
    // Held by LoggerAlone.ALineWithoutAServiceIsDropped.
    printLine("registeration failed, dropping a line");
    return;
  }
  unsigned char record[kSmallRecordBytes];
  logging::putLineHead(record, source.id, length);
  if (length > kSmallRecordBytes - logging::kLineHeadBytes) {
    sendParts({record, logging::kLineHeadBytes, text, length});
    return;
  }
  if (length > 0) std::memcpy(record + logging::kLineHeadBytes, text, length);
  writeMsg(record, logging::kLineHeadBytes + length, false);
}

}  // namespace kl
