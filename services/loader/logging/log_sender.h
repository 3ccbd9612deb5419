#pragma once
// log_sender.h: the loader's words on their way to the log service.

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "kl/runner.h"
#include "services/common/descriptor.h"
#include "services/common/timer.h"

namespace loader {

class Log;

// Sends the lines of a Log to the log service, under the topic of the loader, and never waits for it.
//
// Lines that the socket does not take at once are kept, up to 64 KiB; those beyond that are dropped, and once there
// is a connection with room again one line reports their number.  While nobody listens it tries again with a line, at
// most once a second, and by itself with growing delay.  While the service has muted the loader, no line is sent or
// kept.
//
// Errors:    none; it reports nothing about itself.
// Ownership: owns its socket; borrows the loop and the Log, which lets go of it when it ends.
// Threads:   belongs to the loop's thread.
// Cost:      a line is one system call while the service reads.
class LogSender {
 public:
  static constexpr std::size_t kMostBytesKept = 64 * 1024;
  static constexpr unsigned int kShortestRetryTicks = 100;
  static constexpr unsigned int kLongestRetryTicks = 3200;

  LogSender(kl::ThinRunner& loop, Log& log);
  LogSender(const LogSender&) = delete;
  LogSender& operator=(const LogSender&) = delete;
  ~LogSender();

  void line(std::string_view text);

 private:
  bool isConnected() const { return socket_.isOpen(); }
  bool mayTry() const;
  void tryToConnect();
  bool introduce(int fd);
  void disconnect();
  void retryLater();

  void keep(std::string_view text);
  bool hasRoomFor(std::string_view text) const;
  void tellDrops();
  void sendKept();
  void watchForRoom(bool wanted);

  void onSocket(int fd, unsigned int events);
  bool readWords();
  bool obeyMuteRecords();

  kl::ThinRunner& loop_;
  Log& log_;
  common::Descriptor socket_;
  common::Timer<&LogSender::tryToConnect> retry_;
  unsigned int retryTicks_ = kShortestRetryTicks;
  unsigned int lastTry_;
  std::deque<std::string> records_;  // whole records, the oldest first
  std::size_t bytesKept_ = 0;
  std::size_t sentOfFirst_ = 0;
  unsigned int dropped_ = 0;
  std::vector<unsigned char> heard_;  // the beginning of a record of the service
  bool muted_ = false;
};

}  // namespace loader
