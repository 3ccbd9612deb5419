// Kernels without filters say of a missing program that they know no such order, others that it is not there.

#include "life/call_filter.h"

#include <linux/seccomp.h>
#include <sys/prctl.h>

#include <cerrno>
#include <map>

namespace loader {

CallFilter::Result CallFilter::enforce() const {
  if (program_.empty()) return Result::kEnforced;
  if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, nullptr, 0, 0) != 0 && errno != EFAULT)
    return Result::kUnknownToKernel;
  const sock_fprog whole{static_cast<unsigned short>(program_.size()),
                         const_cast<sock_filter*>(program_.data())};
  return ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &whole, 0, 0) == 0 ? Result::kEnforced
                                                                         : Result::kFailed;
}

const CallFilter& filterOf(Profile profile) {
  static std::map<Profile, CallFilter> filters;
  const auto found = filters.find(profile);
  if (found != filters.end()) return found->second;
  return filters
      .emplace(profile, profile == Profile::kNone ? CallFilter() : CallFilter(makeFilterProgram(profile)))
      .first->second;
}

}  // namespace loader
