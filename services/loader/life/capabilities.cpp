// Of the five sets of a process the bounding one limits what it may ever have, the ambient one is what a program gets
// whose user is not root, and the other three are the same.

#include "life/capabilities.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

namespace loader {
namespace {

constexpr unsigned long kMostKinds = 64;

bool contains(Capabilities set, unsigned long kind) { return ((set >> kind) & 1) != 0; }

// The first that is too many for this kernel ends the walk.
bool isKnown(unsigned long kind) { return kind < kMostKinds && ::prctl(PR_CAPBSET_READ, kind, 0, 0, 0) >= 0; }

bool forgo(unsigned long kind) {
  return ::prctl(PR_CAPBSET_READ, kind, 0, 0, 0) == 0 || ::prctl(PR_CAPBSET_DROP, kind, 0, 0, 0) == 0;
}

bool setOwn(Capabilities set) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
  for (unsigned int half = 0; half < _LINUX_CAPABILITY_U32S_3; ++half) {
    const auto bits = static_cast<std::uint32_t>(set >> (32 * half));
    data[half] = {bits, bits, bits};
  }
  return ::syscall(SYS_capset, &header, data) == 0;
}

// Kernels have it since 4.3.
bool setAmbient(Capabilities set) {
  if (::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0) return set == 0;
  for (unsigned long kind = 0; kind < kMostKinds; ++kind)
    if (contains(set, kind) && ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, kind, 0, 0) != 0) return false;
  return true;
}

}  // namespace

bool boundCapabilities(Capabilities set) {
  bool isBound = true;
  for (unsigned long kind = 0; isKnown(kind); ++kind)
    if (!contains(set, kind)) isBound = forgo(kind) && isBound;
  return (set == 0 || ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) == 0) && isBound;
}

bool takeCapabilities(Capabilities set) { return setOwn(set) && setAmbient(set); }

}  // namespace loader
