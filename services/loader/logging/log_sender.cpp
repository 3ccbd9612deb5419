// The loader's own client of the log service.  It speaks the records of docs/log.md.
//
//     disconnected --a line or the timer--> connected --the service goes or talks nonsense--> disconnected
//
// N1  every descriptor is non-blocking from its beginning: connecting to a local socket is done at once or fails
// N2  records_ holds whole records; what was sent of the first one belongs to this connection, and a new one begins
//     with the whole record
// N3  while disconnected with something to say, the timer runs

#include "logging/log_sender.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "kl/services.h"
#include "kl/utilities.h"
#include "logging/log.h"
#include "services/common/local_socket.h"
#include "services/common/log_records.h"

namespace loader {
namespace {

constexpr unsigned int kSource = 1;
constexpr std::size_t kMostTextBytes = 2048;
constexpr unsigned short kTopics[] = {kl::TOPIC_LOADER};

}  // namespace

LogSender::LogSender(kl::ThinRunner& loop, Log& log)
    : loop_(loop), log_(log), retry_(loop, *this), lastTry_(kl::getJiffies() - kShortestRetryTicks) {
  log_.setSender(this);
}

LogSender::~LogSender() {
  log_.setSender(nullptr);
  if (isConnected()) loop_.removeSocket(socket_.get());
}

void LogSender::line(std::string_view text) {
  if (muted_) return;
  keep(text);
  if (!isConnected() && mayTry()) tryToConnect();
  else if (isConnected() && records_.size() == 1) sendKept();  // otherwise the socket has no room
}

void LogSender::keep(std::string_view text) {
  text = text.substr(0, kMostTextBytes);
  tellDrops();
  if (dropped_ > 0 || !hasRoomFor(text)) {
    ++dropped_;
    return;
  }
  records_.push_back(common::lineRecord(kSource, text));
  bytesKept_ += records_.back().size();
}

bool LogSender::hasRoomFor(std::string_view text) const {
  return bytesKept_ + common::kLineHeadBytes + text.size() <= kMostBytesKept;
}

// The report stands behind the lines that were kept before the first one was dropped; not before the reader has
// caught up with half of them, so that many drops are one line.
void LogSender::tellDrops() {
  if (dropped_ == 0 || !isConnected() || bytesKept_ > kMostBytesKept / 2) return;
  const unsigned int count = std::exchange(dropped_, 0);
  keep(std::to_string(count) + " lines dropped");
}

bool LogSender::mayTry() const { return kl::getJiffies() - lastTry_ >= kShortestRetryTicks; }

void LogSender::tryToConnect() {
  lastTry_ = kl::getJiffies();
  common::Descriptor fd = common::newStreamSocket();  // N1
  if (!fd.isOpen() || !common::connectTo(fd.get(), kl::logSocketPath()) || !introduce(fd.get()))
    return retryLater();
  socket_ = std::move(fd);
  retry_.cancel();
  retryTicks_ = kShortestRetryTicks;
  loop_.addSocket(socket_.get(), this, kl::bind<LogSender, &LogSender::onSocket>(), POLLIN);
  sendKept();
}

// A new socket has room for a few bytes.
bool LogSender::introduce(int fd) {
  const std::string record = common::registrationRecord(kSource, kTopics);
  return ::send(fd, record.data(), record.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(record.size());
}

void LogSender::retryLater() {
  retry_.start(retryTicks_);  // N3
  retryTicks_ = std::min(2 * retryTicks_, kLongestRetryTicks);
}

void LogSender::disconnect() {
  loop_.removeSocket(socket_.get());
  socket_.close();
  sentOfFirst_ = 0;  // N2
  heard_.clear();
  muted_ = false;
  if (!records_.empty() || dropped_ > 0) retryLater();
}

void LogSender::sendKept() {
  for (tellDrops(); !records_.empty(); tellDrops()) {
    const std::string& first = records_.front();
    const ssize_t sent =
        ::send(socket_.get(), first.data() + sentOfFirst_, first.size() - sentOfFirst_, MSG_NOSIGNAL);
    if (sent < 0 && errno == EAGAIN) return watchForRoom(true);
    if (sent < 0) return disconnect();
    sentOfFirst_ += static_cast<std::size_t>(sent);
    if (sentOfFirst_ < first.size()) continue;
    bytesKept_ -= first.size();
    sentOfFirst_ = 0;
    records_.pop_front();
  }
  watchForRoom(false);
}

void LogSender::watchForRoom(bool wanted) {
  loop_.changeSocket(socket_.get(), wanted ? POLLIN | POLLOUT : POLLIN);
}

void LogSender::onSocket(int, unsigned int events) {
  const bool hasWords = (events & (POLLIN | POLLHUP | POLLERR)) != 0;
  if (hasWords && !readWords()) return disconnect();
  if ((events & POLLOUT) != 0) sendKept();
}

// False when the service is gone or sends something that is no record.
bool LogSender::readWords() {
  unsigned char bytes[256];
  const ssize_t count = ::recv(socket_.get(), bytes, sizeof bytes, 0);
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  heard_.insert(heard_.end(), bytes, bytes + count);
  return count > 0 && obeyMuteRecords();
}

bool LogSender::obeyMuteRecords() {
  std::size_t at = 0;
  for (; heard_.size() - at >= common::kMuteRecordBytes; at += common::kMuteRecordBytes) {
    const common::MuteRecord record = common::readMuteRecord(heard_.data() + at);
    if (record.length != common::kMuteRecordBytes) return false;
    if (record.source == kSource) muted_ = record.mutes;
  }
  heard_.erase(heard_.begin(), heard_.begin() + static_cast<std::ptrdiff_t>(at));
  return true;
}

}  // namespace loader
