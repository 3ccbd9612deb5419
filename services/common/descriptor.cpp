// The first descriptors of a process: a closed one is found by fcntl() and taken by open(), since a new descriptor gets
// the lowest number that is free.

#include "services/common/descriptor.h"

#include <fcntl.h>

namespace common {

void occupyDescriptors(int last, int flags) {
  for (int fd = 0; fd <= last; ++fd)
    if (::fcntl(fd, F_GETFD) < 0) (void)::open("/dev/null", flags);
}

}  // namespace common
