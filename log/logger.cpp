// Sources and their lines.
//
// A source is one list of topics.  The service learns its number and its topics with a registration, once on each
// connection, and its lines carry the number alone:
//
//     unregistered --sendRegistration--> registered --connection ends, or begins anew--> unregistered
//
// L1  no line goes out on a connection before the registration of its source
// L2  the source with number n is table_[n - 1], and its topics are the key it is kept under

#include "kl/logger.h"

#include <alloca.h>

#include <algorithm>
#include <cstring>

#include "log/diagnostics.h"
#include "log/log_records.h"
#include "log/parts.h"

namespace kl {
namespace {

// A record of up to so many bytes is copied together and sent with a plain write, which costs less than gathering.
constexpr unsigned int kSmallRecordBytes = 512;

}  // namespace

Source* Logger::registerSource(const std::vector<unsigned short>& topics) {
  const auto [place, isNew] = sources_.try_emplace(topics);
  Source& source = place->second;
  if (!isNew) return &source;
  source = {&place->first, static_cast<unsigned int>(table_.size()) + 1, false, false};  // L2
  table_.push_back(&source);
  sendRegistration(&source);
  return &source;
}

// Never inlined: what it takes from the stack must go back before the next record.
__attribute__((noinline)) bool Logger::sendRegistration(Source* source) {
  source->registered = false;
  const auto count = static_cast<unsigned int>(source->topics->size());
  if (count > logging::kMostTopics) return false;
  const unsigned int length = logging::registrationBytes(count);
  auto* record = static_cast<unsigned char*>(alloca(length));
  logging::putRegistration(record, source->id, *source->topics);
  const bool wentOutWhole = writeMsg(record, length, true);
  source->registered = wentOutWhole;
  return wentOutWhole;
}

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
  if (!source.registered && !sendRegistration(&source)) {  // L1
    // Kept on purpose: the spelling, which people and their tools search for.
    // Held by LoggerAlone.ALineWithoutAServiceIsDropped.
    logging::printLine("registeration failed, dropping a line");
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
