// How the library opens files.

#include "base/descriptor.h"

#include <fcntl.h>

namespace kl {
namespace {

constexpr mode_t kOwnerOnly = 0600;

}  // namespace

int openFile(const char* path, int flags) { return ::open(path, flags | O_CLOEXEC, kOwnerOnly); }

}  // namespace kl
