// Muting: the log service names the sources whose lines it does not want.
//
// Records are taken as one read brings them.  One that a read cuts in two is not put together again but ends the
// connection: such records are rare, and a new connection knows where a record begins.

#include <unistd.h>

#include <cerrno>

#include "base/report.h"
#include "kl/logger.h"
#include "log/log_records.h"

namespace kl {
namespace {

constexpr unsigned int kReadBytes = 256;

}  // namespace

void Logger::onSocket(int fd, unsigned int /*events*/) {
  if (fd != socket_) return printLine("wrong alarm");
  unsigned char bytes[kReadBytes];
  const ssize_t count = ::read(fd, bytes, sizeof bytes);
  if (count > 0) return obeyMuteRecords(bytes, static_cast<unsigned int>(count));
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  // A service that closes without having read everything makes the read fail.
  printLine("EOF");
  closeConnection();
}

void Logger::obeyMuteRecords(const unsigned char* bytes, unsigned int count) {
  const char* fault = nullptr;
  for (; count > 0; bytes += logging::kMuteRecordBytes, count -= logging::kMuteRecordBytes) {
    if (count < logging::kMuteRecordBytes) {
      fault = "msg too short, dropping";
      break;
    }
    const logging::MuteRecord record = logging::readMuteRecord(bytes);
    if (record.length != logging::kMuteRecordBytes) {
      fault = "msg has bad len, dropping";
      break;
    }
    const bool isKnown = record.sourceId > 0 && record.sourceId <= table_.size();
    if (isKnown) table_[record.sourceId - 1]->muted = record.mutes;
  }
  if (fault == nullptr) return;
  printLine(fault);
  closeConnection();
}

}  // namespace kl
