// The limit of descriptors is raised for the loader, which holds one for each process of the system, and given back to
// the processes that it starts: programs that use select() must not be handed descriptors beyond what it can take.

#include "transport/descriptors.h"

#include <sys/resource.h>

namespace loader {
namespace {

rlimit before{};
bool isRaised = false;

}  // namespace

std::size_t descriptorLimit() {
  rlimit now{};
  return ::getrlimit(RLIMIT_NOFILE, &now) == 0 ? static_cast<std::size_t>(now.rlim_cur) : 0;
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
