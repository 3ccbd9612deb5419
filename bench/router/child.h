#pragma once
// child.h: a process that the benchmark starts, talks to over pipes and ends.

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// A descriptor that is closed with its owner.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor();

  int get() const { return fd_; }
  void close();

 private:
  int fd_;
};

struct Pair {
  Descriptor first, second;
};
Pair makePipe();        // first is read from, second written to
Pair makeSocketPair();  // stream sockets

// Runs a program of the folder that this one is in.  Its standard input and output are pipes to here; the
// descriptors of `inherited` keep their numbers.  Destroying it ends the process and waits for it.
class Child {
 public:
  Child() = default;
  Child(const std::string& program, const std::vector<std::string>& arguments,
        const std::vector<int>& inherited = {});
  Child(Child&& other) noexcept;
  Child& operator=(Child&& other) noexcept;
  ~Child();

  pid_t pid() const { return pid_; }
  int in() const { return in_.get(); }
  int out() const { return out_.get(); }

  // The next line that it prints; empty at the end of its output.
  std::string readLine() const;

 private:
  pid_t pid_ = -1;
  Descriptor in_, out_;
};

// Where this program and those beside it are.
std::string programFolder();

}  // namespace bench
