#include "descriptors.h"

#include <sys/resource.h>

namespace loader {
namespace {

rlimit before{};
bool isRaised = false;

}  // namespace

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
