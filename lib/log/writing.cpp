// The way of a record to the socket.
//
// A slow reader gets time: a record has four attempts and three pauses.  A line that is lost then is reported on
// standard output.  No line is queued, because a process must not grow with lines that the service does not read.

#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

#include "base/held_output.h"
#include "base/report.h"
#include "kl/logger.h"
#include "log/parts.h"

namespace kl {
namespace {

constexpr unsigned int kMostPauses = 3;
constexpr unsigned int kPauseMicroseconds = 100000;

const void* behind(const void* bytes, unsigned int count) { return static_cast<const char*>(bytes) + count; }

void tellFailure(unsigned int length) {
  printErrno("writeRaw failed: ");
  printLine("ret=-1, len=", length);
}

unsigned int giveUp(unsigned int written) {
  if (written > 0) printLine("partial write written=", written);
  return written;
}

}  // namespace

bool Logger::writeMsg(const void* record, unsigned int length, bool /*isRegistration*/) {
  return sendParts({record, length});
}

unsigned int Logger::writeRaw(const void* bytes, unsigned int length) { return writeParts({bytes, length}); }

// Kept on purpose: a record sent in several attempts is reported as lost although it arrived; the misspelt line is
// fixed.
// Held by LogWriting.ARecordInTwoPiecesArrivesAndIsToldAsLost.
bool Logger::sendParts(Parts parts) {
  if (socket_ < 0) connectToLog();
  if (socket_ < 0) {
    printLine("dropping");
    return false;
  }
  const unsigned int length = parts.bytes();
  if (writeParts(parts) >= length) return true;
  printLine("dopping line");
  return false;
}

// The only place that writes to the socket.
unsigned int Logger::writeParts(Parts parts) {
  unsigned int written = 0;  // without what the last attempt wrote
  for (unsigned int pauses = 0;; ++pauses) {
    const ssize_t result = parts.writeTo(socket_);
    if (result == static_cast<ssize_t>(parts.bytes())) return parts.bytes();
    if (result < 0 && errno != EAGAIN) {
      tellFailure(parts.bytes());
      closeConnection();
      return 0;
    }
    if (pauses == kMostPauses) return giveUp(written);
    if (result > 0) {
      written += static_cast<unsigned int>(result);
      parts.advance(static_cast<unsigned int>(result));
    }
    heldOutput.write();  // the service that reads so slowly may wait for this process
    printLine("sleeping");
    ::usleep(kPauseMicroseconds);
  }
}

ssize_t Logger::Parts::writeTo(int fd) const {
  if (textBytes == 0) return ::write(fd, head, headBytes);
  const iovec pieces[] = {{const_cast<void*>(head), headBytes}, {const_cast<void*>(text), textBytes}};
  return ::writev(fd, pieces, 2);
}

void Logger::Parts::advance(unsigned int count) {
  if (count < headBytes) {
    head = behind(head, count);
    headBytes -= count;
  } else {
    head = behind(text, count - headBytes);
    headBytes = textBytes - (count - headBytes);
    textBytes = 0;
  }
}

}  // namespace kl
