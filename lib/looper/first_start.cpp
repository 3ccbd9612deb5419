// Remembers which programs have run on this machine: an empty file for each, named as the program is.

#include "looper/first_start.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/descriptor.h"
#include "fixed_paths.h"

namespace kl {
namespace {

constexpr std::size_t kCommandBytes = 79;  // of the command line that are looked at

// The first word of the command line, without its folder; empty when it cannot be read.
std::string programName() {
  const std::string source = "/proc/" + std::to_string(::getpid()) + "/cmdline";
  const Descriptor file(source.c_str(), O_RDONLY);
  if (!file) return "";
  char command[kCommandBytes + 1] = {};
  ssize_t got = 0;
  do got = ::read(file.fd(), command, kCommandBytes);
  while (got < 0 && errno == EINTR);
  if (got <= 0) return "";
  const std::string program(command);
  return program.substr(program.rfind('/') + 1);
}

}  // namespace

std::string firstStartMarker() { return paths::kFirstStartMarkers + programName(); }

bool hasMarker(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

void leaveMarker(const std::string& path) { (void)Descriptor(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC); }

}  // namespace kl
