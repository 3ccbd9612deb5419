#pragma once
// log.h: the loader's own words.

#include <string>

namespace loader {

// Writes one line for each thing that an operator should know: "kl-loader: NAME (ID, pid PID): WHAT".
//
// The router must never wait for its log, so a line that the descriptor does not take at once is dropped; the next
// line that gets through says how many were.
//
// Errors:    none; what cannot be written is counted.
// Ownership: borrows the descriptor.
// Threads:   belongs to one thread.
// Cost:      two system calls a line.
class Log {
 public:
  explicit Log(int fd) : fd_(fd) {}

  void line(const std::string& text);

 private:
  bool takesALine() const;
  void write(std::string text);

  int fd_;
  unsigned int dropped_ = 0;
};

}  // namespace loader
