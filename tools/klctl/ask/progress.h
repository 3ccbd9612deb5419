#pragma once
// progress.h: the progress of a long walk, on one line of the terminal.

#include <chrono>
#include <cstddef>
#include <string>

namespace klctl {

// A line with the number of objects so far, shown after one second and wiped out at the end.  Nothing is written when the
// descriptor is no terminal.
class Progress {
 public:
  using Time = std::chrono::steady_clock::time_point;

  Progress(int fd, const std::string& path, Time start);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // When look() next has something to write.
  Time nextLook() const { return next_; }

  // Writes the line if it is time.
  void look(Time now, std::size_t objects);

 private:
  void write(const std::string& text) const;

  int fd_;
  std::string path_;
  Time next_;
  bool shown_ = false;
};

}  // namespace klctl
