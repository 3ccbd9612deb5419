#include "message/access.h"

#include <cstdio>
#include <cstdlib>

namespace kl {

void reportMissing(unsigned int id) {
  std::fprintf(stderr, "message: const reference to field 0x%08x, which the message does not hold\n", id);
  std::abort();
}

}  // namespace kl
