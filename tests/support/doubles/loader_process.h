#pragma once
// tests/support/doubles/loader_process.h: the loader itself, running for a test.  Needs: a private root.

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "tests/support/process/child_process.h"

namespace kl::test {

// A loader with a configuration of the test's choice.  The destructor ends it unless the test has done so, and fails the
// test when that end is not orderly.
//
//     LoaderProcess loader("[[service]]\nname = \"netif\"\ncommand = [\"" KL_BIN_DIR "/netif\"]\n");
class LoaderProcess {
 public:
  // Writes the configuration to a file, starts the loader and waits until it takes connections or has ended.  It may
  // have `mostDescriptors` and cannot raise that; 0: as many as this process.
  explicit LoaderProcess(const std::string& configuration = "", std::size_t mostDescriptors = 0);
  LoaderProcess(const LoaderProcess&) = delete;
  LoaderProcess& operator=(const LoaderProcess&) = delete;
  ~LoaderProcess();

  pid_t pid() const { return process_.pid(); }

  // Writes another configuration to the file; the loader reads it when it is told to.
  void configure(const std::string& configuration) const;

  void signal(int sig) const { process_.signal(sig); }
  // Waits for its end: the exit status, 128 + the signal's number, or -1 when it does not end in time.
  int waitForEnd(int deadlineMs = 10000) { return process_.waitForEnd(deadlineMs); }

  // The lines that it has written to its standard error stream so far.
  std::string log() const;
  // Waits until the log holds the text.
  bool logs(const std::string& text, int deadlineMs = 5000) const;

  // Descriptors that it has open, and bytes of memory that are its own.
  std::size_t descriptors() const;
  std::size_t memory() const;

 private:
  [[noreturn]] void run(std::size_t mostDescriptors) const;

  std::string folder_;
  ChildProcess process_;
};

}  // namespace kl::test
