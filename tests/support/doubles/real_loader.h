#pragma once
// tests/support/doubles/real_loader.h: the loader itself, running for a test.  Needs: a root of the test's own.

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/process/child.h"

namespace kl::test {

// Runs a program to its end.
ChildResult runProgram(const std::vector<std::string>& words);

// A loader with the services of a test, listening when the constructor returns; ended orderly by the destructor.
//
//     RealLoader loader(KL_BIN_DIR, "[[service]]\nname = \"netif\"\ncommand = [\"" KL_BIN_DIR "/netif\"]\n");
class RealLoader {
 public:
  explicit RealLoader(const std::string& programs, const std::string& services = "");
  ~RealLoader();
  RealLoader(const RealLoader&) = delete;
  RealLoader& operator=(const RealLoader&) = delete;

  // Ends it as a crash would.
  void kill();

  // What it wrote on its log up to now.
  std::string log() const;

 private:
  int end(int signal);

  std::string folder_;
  pid_t pid_ = -1;
};

}  // namespace kl::test
