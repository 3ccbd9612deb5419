// Remembers which programs have run on this machine: an empty file for each, named as the program is.
//
// Every user may write into the folder of the markers, so a name there proves nothing by itself:
//
// M1  a marker counts only if it is a regular file of this process's user or of root
// M2  a marker is made, never opened: a file that has its name already, a link above all, is left alone

#include "looper/first_start.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/descriptor.h"
#include "base/report.h"
#include "kl/utilities.h"

namespace kl {
namespace {

constexpr std::size_t kCommandBytes = 79;  // of the command line that are looked at

// The first word of the command line, without its folder; empty when it cannot be read.
std::string programName() {
  const std::string source = "/proc/" + decimal(::getpid()) + "/cmdline";
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

std::string firstStartMarker() { return runFolderPath() + "/" + programName(); }

bool hasMarker(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;  // M1
  return status.st_uid == ::geteuid() || status.st_uid == 0;
}

void leaveMarker(const std::string& path) {
  (void)Descriptor(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW);  // M2
}

}  // namespace kl
