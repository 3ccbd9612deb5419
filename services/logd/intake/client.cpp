// Bytes that are read become lines of their sources; mute records are written (services/common/log_records.h).
//
// C1  at most 42 of them are under way: a client takes what one read of 256 bytes brings, and a record that such a
//     read cuts in two makes it disconnect.  While the last ones are not read, the next wait.
// C2  nothing waits for a client: what it does not read is a few flags here
// C3  every line that a read brought is in its file before the next read
// C4  the topics of the loader and of the log service itself are theirs alone: another process loses them

#include "intake/client.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <fstream>

#include "kl/bind.h"
#include "kl/services.h"
#include "services/common/local_socket.h"
#include "services/common/log_records.h"

namespace logd {
namespace {

constexpr std::size_t kReadBytes = 65536;
constexpr std::size_t kMostRecords = 42;  // C1
constexpr unsigned int kRetryTicks = 5;
constexpr int kMostDrainReads = 64;

// All clients share it: the bytes of one read are taken before the next.
unsigned char readArea[kReadBytes];

// Has the other side read everything?
bool isReadEmpty(int fd) {
  int unread = 0;
  return ::ioctl(fd, SIOCOUTQ, &unread) == 0 && unread == 0;
}

}  // namespace

Origin originAt(int fd) {
  const common::Peer peer = common::peerOf(fd);
  Origin origin;
  origin.pid = static_cast<unsigned int>(peer.pid);
  origin.uid = peer.uid;
  std::ifstream name("/proc/" + std::to_string(origin.pid) + "/comm");
  if (!std::getline(name, origin.process) || origin.process.empty()) origin.process = "?";
  return origin;
}

Client::Client(kl::ThinRunner& runner, LogBook& book, Tally& tally, common::Descriptor socket,
               Standing standing, OnEnd onEnd)
    : runner_(runner),
      book_(book),
      tally_(tally),
      socket_(std::move(socket)),
      about_(std::move(standing.about)),
      account_(std::move(standing.account)),
      isLoader_(standing.isLoader),
      onEnd_(std::move(onEnd)),
      retry_(runner, *this),
      now_(steadyTime()) {
  runner_.addSocket(socket_.get(), this, kl::bind<Client, &Client::onEvent>(), POLLIN);
}

void Client::applyMutes() {
  for (auto& [id, source] : sources_) source.isMuted = book_.mutes().mutes(source.origin->topics);
  tellMutes();
}

void Client::drain() {
  for (int i = 0; i < kMostDrainReads && fault_ == nullptr && readOnce(); ++i) {
  }
  account_->reportDrops(book_, steadyTime());
}

// The process can write no more before what it wrote is taken: a line beyond that fails, and it knows.
void Client::makeRoom() {
  (void)::shutdown(socket_.get(), SHUT_RD);
  const auto silence = std::to_string((steadyTime() - now_) / 1'000'000'000);
  drain();
  if (fault_ == nullptr)
    account_->remark(book_, steadyTime(),
                     "closed: it was silent for " + silence + " seconds, and another client came");
  end();
}

void Client::onEvent(int, unsigned int) {
  const bool goesOn = readOnce();
  if (fault_ != nullptr || (!goesOn && errno != EAGAIN && errno != EINTR)) end();
}

// False when nothing was read; errno has the reason, 0 at the end.
bool Client::readOnce() {
  errno = 0;
  const ssize_t n = ::recv(socket_.get(), readArea, sizeof readArea, MSG_DONTWAIT);
  if (n <= 0) return false;
  take({readArea, static_cast<std::size_t>(n)});
  return true;
}

void Client::take(std::span<const unsigned char> bytes) {
  now_ = steadyTime();
  received_ = timeOfDay();
  reader_.add(bytes);
  for (Record record; fault_ == nullptr && reader_.next(record);) fault_ = takeRecord(record);
  if (fault_ == nullptr) fault_ = reader_.fault();
  book_.flush(now_);  // C3
}

const char* Client::takeRecord(const Record& record) {
  return record.isRegistration ? addSource(record.source, record.topics)
                               : addLine(record.source, record.text);
}

const char* Client::addSource(unsigned int id, Topics topics) {
  if (!sources_.contains(id)) {
    if (!hasRoomForSource()) return "a registration of too many sources";
    ++user().sources;
  }
  topics = withoutForeign(std::move(topics));
  Source& source = sources_[id];
  source.isMuted = book_.mutes().mutes(topics);
  source.origin =
      std::make_shared<const Origin>(Origin{about_.process, about_.pid, id, std::move(topics), about_.uid});
  if (source.isMuted != source.isTold) tellMutes();
  return nullptr;
}

bool Client::hasRoomForSource() const {
  return sources_.size() < kMostSources && (user().isTrusted || user().sources < UserAccount::kMostSources);
}

const char* Client::addLine(unsigned int id, std::string_view text) {
  const auto source = sources_.find(id);
  if (source == sources_.end()) return "a line of a source that was not registered";
  if (!account_->takeLine(now_, static_cast<unsigned int>(common::kLineHeadBytes + text.size()))) {
    ++tally_.dropped;
    return nullptr;
  }
  account_->reportDrops(book_, now_);
  ++tally_.lines;
  book_.add({received_, source->second.origin, std::string(text)}, now_);
  return nullptr;
}

// C4
Topics Client::withoutForeign(Topics topics) {
  const auto isForeign = [this](Topic topic) {
    const bool isTheLoaders =
        topic == kl::TOPIC_LOADER || topic == kl::TOPIC_OUTPUT || topic == kl::TOPIC_ERRORS;
    return topic == kl::TOPIC_LOGD || (isTheLoaders && !isLoader_);
  };
  if (std::erase_if(topics, isForeign) > 0)
    account_->remark(book_, now_, "registered a topic that is not its own: its lines go without");
  return topics;
}

void Client::tellMutes() {
  retry_.cancel();
  std::string records;
  std::vector<Source*> told;
  for (auto& [id, source] : sources_) {
    if (source.isMuted == source.isTold || told.size() == kMostRecords) continue;
    records += common::muteRecord(id, source.isMuted);
    told.push_back(&source);
  }
  if (told.empty()) return;
  if (isReadEmpty(socket_.get()) && sendRecords(records))
    for (Source* source : told) source->isTold = source->isMuted;
  retry_.start(kRetryTicks);  // C1
}

bool Client::sendRecords(const std::string& records) {
  const ssize_t n = ::send(socket_.get(), records.data(), records.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return n == static_cast<ssize_t>(records.size());
}

void Client::end() {
  const Nanoseconds now = steadyTime();
  account_->reportDrops(book_, now);
  if (fault_ != nullptr) account_->remark(book_, now, std::string("disconnected: it wrote ") + fault_);
  else if (reader_.pendingBytes() > 0) ++tally_.torn;
  book_.flush(now);
  close();
  const OnEnd onEnd = std::move(onEnd_);
  onEnd(*this);
}

void Client::close() {
  if (!socket_.isOpen()) return;
  user().sources -= sources_.size();
  retry_.cancel();
  runner_.removeSocket(socket_.get());
  socket_.close();
}

}  // namespace logd
