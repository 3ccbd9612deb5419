#pragma once
// syslog_export.h: lines for the machine's own log.

#include <string>

#include "keeping/line.h"
#include "services/common/descriptor.h"

namespace logd {

// Sends lines to a datagram socket like /dev/log.  Nobody is waited for: what the socket does not take is counted.
//
//     <28>netif[812]: eth0 is down          facility daemon, severity by the first topic from 1 to 8
//
// Errors:    none; the other side may start and stop at any time.
// Ownership: owns its socket.
// Threads:   belongs to one thread.
// Cost:      one system call a line.
class SyslogExport {
 public:
  // An empty path exports nothing.
  explicit SyslogExport(std::string path) : path_(std::move(path)) {}

  // False when the line was not taken.
  bool send(const Line& line);
  bool isOn() const { return !path_.empty(); }

  // Lines that were not taken since the last call.
  unsigned long long takeLost() { return std::exchange(lost_, 0); }

 private:
  bool sendText(const std::string& text);

  std::string path_;
  common::Descriptor socket_;
  unsigned long long lost_ = 0;
};

}  // namespace logd
