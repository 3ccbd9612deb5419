#pragma once
// capture.h: the messages that pass, in a file for Wireshark.

#include <map>
#include <string>

#include "output/pcapng.h"
#include "verbs/trace.h"

namespace klctl {

// Turns what a tap shows into the blocks of a file.  The interfaces of its packets are the senders, "netif (32)"; the
// first one, "tap (0)", sends nothing, and what is lost is counted there.
//
// Errors:    none.
// Ownership: borrows the command line.
// Threads:   belongs to one thread.
// Cost:      an entry for each sender.
class CaptureReport {
 public:
  CaptureReport(const CommandLine& line, OpenRequests services)
      : line_(line), trace_(line, std::move(services)) {}

  // The beginning of the file.
  std::string begin(const std::string& wish);
  // The blocks for a message, or for a number of lost ones: of the latter none before the next message.
  std::string blocksOf(const kl::message& shown);
  // The end of the file.
  std::string end();

  const TraceReport& trace() const { return trace_; }

 private:
  std::string addInterface(unsigned int service, const std::string& name);
  std::string commentOf(const kl::message& shown, const std::string& line);
  void noteTime(unsigned long long at);

  const CommandLine& line_;
  TraceReport trace_;
  std::map<unsigned int, pcapng::Statistics> senders_;  // by the number of the service
  std::string gap_;                                     // what was lost in front of the next packet, in words
  unsigned long long firstAt_ = 0;
  unsigned long long lastAt_ = 0;
};

void captureMessages(const CommandLine& line, const Channels& channels);

}  // namespace klctl
