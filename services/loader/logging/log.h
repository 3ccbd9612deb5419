#pragma once
// log.h: the loader's own words.

#include <string>

namespace loader {

class LogSender;

// Of a service, where it was written.
enum class Stream { kOutput, kErrors };

// Writes one line for each thing that an operator should know: "kl-loader: NAME (ID, pid PID): WHAT".
//
// They go to the descriptor and, while there is a LogSender, to the log service.
//
// The router must never wait for its log, so a line that the descriptor does not take at once is dropped; a line
// with their number precedes the next one that gets through.
//
// Errors:    none; what cannot be written is counted.
// Ownership: borrows the descriptor, and the sender until it is set anew.
// Threads:   belongs to one thread.
// Cost:      two system calls a line.
class Log {
 public:
  explicit Log(int fd) : fd_(fd) {}

  void line(const std::string& text);
  // Sends what a service has written, to the log service alone.  False where it is lost because it came too fast, or
  // because nobody takes it.
  bool output(Stream stream, const std::string& text);
  void setSender(LogSender* sender) { sender_ = sender; }

 private:
  void writeLine(const std::string& text);
  bool takesALine() const;
  void write(std::string text);

  int fd_;
  unsigned int dropped_ = 0;
  LogSender* sender_ = nullptr;
};

}  // namespace loader
