#pragma once
// output_sink.h: one of the loader's own streams, for what its services write.

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "logging/log.h"

namespace loader {

// Passes the ordinary output of a service on to a descriptor and never waits for it: what the descriptor does not take
// at once is lost, and a line of the log says how much that was as soon as it takes something again.
//
// Errors:    none; what cannot be written is counted.
// Ownership: borrows the descriptor and the log.
// Threads:   belongs to one thread.
// Cost:      two system calls for each 2,047 bytes.
class OutputSink {
 public:
  OutputSink(int fd, std::string service, Log& log) : fd_(fd), service_(std::move(service)), log_(log) {}

  void write(std::string_view bytes);

 private:
  bool writePiece(std::string_view piece);
  void tellLosses();

  int fd_;
  std::string service_;
  Log& log_;
  unsigned long long lostBytes_ = 0;
};

}  // namespace loader
