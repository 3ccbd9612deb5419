#include "transport/descriptors.h"

#include <fcntl.h>
#include <sys/resource.h>

namespace loader {
namespace {

rlimit before{};
bool isRaised = false;

}  // namespace

// A new descriptor gets the lowest number that is free.
void openStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (::fcntl(fd, F_GETFD) < 0) (void)::open("/dev/null", O_RDWR);
}

void raiseDescriptorLimit() {
  if (::getrlimit(RLIMIT_NOFILE, &before) != 0) return;
  rlimit most = before;
  most.rlim_cur = most.rlim_max;
  isRaised = ::setrlimit(RLIMIT_NOFILE, &most) == 0;
}

void restoreDescriptorLimit() {
  if (isRaised) (void)::setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace loader
