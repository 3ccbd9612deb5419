#include "tests/lib/looper/sends.h"

#include <sys/socket.h>

#include "tests/support/calls/real_calls.h"

namespace {

bool takesNothing = false;
int watched = -1;
std::vector<std::size_t> sent;

}  // namespace

// In the place of the C library's.
extern "C" ssize_t send(int fd, const void* from, size_t size, int flags) {
  static auto* const next = kl::test::realCall<ssize_t(int, const void*, size_t, int)>("send");
  if (fd == watched && watched >= 0) sent.push_back(size);
  return takesNothing ? 0 : next(fd, from, size, flags);
}

namespace kl::test {

Sends::Sends(int fd) { watched = fd; }
Sends::~Sends() {
  watched = -1;
  sent.clear();
}
const std::vector<std::size_t>& Sends::sizes() const { return sent; }
void Sends::forget() { sent.clear(); }

void letSendsTakeNothing(bool nothing) { takesNothing = nothing; }

}  // namespace kl::test
