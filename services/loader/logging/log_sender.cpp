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
#include <span>
#include <utility>

#include "kl/services.h"
#include "kl/utilities.h"
#include "services/common/local_socket.h"
#include "services/common/log_records.h"

namespace loader {
namespace {

// The number of a source on the connection is its place here, from 1 on.
constexpr unsigned short kTopics[] = {kl::TOPIC_LOADER, kl::TOPIC_OUTPUT, kl::TOPIC_ERRORS};
constexpr unsigned int kOwnSource = 1;
constexpr std::size_t kMostTextBytes = 2048;

unsigned int sourceOf(Stream stream) { return stream == Stream::kOutput ? 2 : 3; }

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
  if (muted_[kOwnSource - 1]) return;
  keep(text);
  push();
}

bool LogSender::output(Stream stream, std::string_view text) {
  const unsigned int source = sourceOf(stream);
  if (muted_[source - 1]) return true;
  const std::size_t bytes = common::kLineHeadBytes + text.size();
  if (dropped_ > 0 || bytesKept_ + bytes > kMostBytesKept / 2) return false;
  if (!outputPace_.admitOne(kl::getJiffies())) return false;
  keepRecord(source, text);
  push();
  return true;
}

void LogSender::onServiceThere() {
  retryTicks_ = kShortestRetryTicks;
  if (!isConnected() && (!records_.empty() || dropped_ > 0)) tryToConnect();
}

void LogSender::push() {
  if (isConnected()) {
    if (records_.size() == 1) sendKept();  // otherwise the socket has no room
  } else if (mayTry()) {
    tryToConnect();
  } else if (!retry_.isRunning()) {
    retryLater();  // N3
  }
}

void LogSender::keep(std::string_view text) {
  text = text.substr(0, kMostTextBytes);
  tellDrops();
  if (dropped_ > 0 || !hasRoomFor(text)) {
    ++dropped_;
    return;
  }
  keepRecord(kOwnSource, text);
}

void LogSender::keepRecord(unsigned int source, std::string_view text) {
  records_.push_back(common::lineRecord(source, text));
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
  std::string records;
  for (unsigned int source = 1; source <= kSources; ++source)
    records += common::registrationRecord(source, std::span(&kTopics[source - 1], 1));
  return ::send(fd, records.data(), records.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(records.size());
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
  muted_.fill(false);
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
    if (record.source >= 1 && record.source <= kSources) muted_[record.source - 1] = record.mutes;
  }
  heard_.erase(heard_.begin(), heard_.begin() + static_cast<std::ptrdiff_t>(at));
  return true;
}

}  // namespace loader
