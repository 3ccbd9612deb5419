#pragma once
// log_sender.h: the loader's words on their way to the log service.

#include <array>
#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "kl/runner.h"
#include "logging/log.h"
#include "quota/pace.h"
#include "services/common/descriptor.h"
#include "services/common/timer.h"

namespace loader {

// Sends the lines of a Log to the log service, under the topic of the loader, and never waits for it.
//
// Lines that the socket does not take at once are kept, up to 64 KiB; those beyond that are dropped, and once there
// is a connection with room again one line reports their number.  While nobody listens it tries again with a line, at
// most every 40 ms, by itself with growing delay, and when it hears that the service is there.  While the service has
// muted the loader, no line is sent or kept.
//
// The output of services goes the same way under topics of its own.  It fills half of what is kept, and all services
// together have a rate, so that the loader's own lines pass beside it; whoever hands it over counts what is refused.
//
// Errors:    none; it reports nothing about itself.
// Ownership: owns its socket; borrows the loop and the Log, which lets go of it when it ends.
// Threads:   belongs to the loop's thread.
// Cost:      a line is one system call while the service reads.
class LogSender {
 public:
  static constexpr std::size_t kMostBytesKept = 64 * 1024;
  static constexpr unsigned int kShortestRetryTicks = 4;
  static constexpr unsigned int kLongestRetryTicks = 3200;
  static constexpr unsigned int kOutputPerSecond = 500;  // lines of all services; the log service takes 2,000
  static constexpr unsigned int kOutputBurst = 2000;

  LogSender(kl::ThinRunner& loop, Log& log);
  LogSender(const LogSender&) = delete;
  LogSender& operator=(const LogSender&) = delete;
  ~LogSender();

  void line(std::string_view text);
  // False when it is not taken.
  bool output(Stream stream, std::string_view text);
  // The log service has registered, so it listens.
  void onServiceThere();

 private:
  static constexpr unsigned int kSources = 3;

  bool isConnected() const { return socket_.isOpen(); }
  bool mayTry() const;
  void tryToConnect();
  bool introduce(int fd);
  void disconnect();
  void retryLater();

  void keep(std::string_view text);
  void keepRecord(unsigned int source, std::string_view text);
  void push();
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
  std::array<bool, kSources> muted_{};
  Pace outputPace_{kOutputPerSecond, kOutputBurst};
};

}  // namespace loader
