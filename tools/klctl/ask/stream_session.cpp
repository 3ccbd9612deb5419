// Waiting for the courier, the user and the clock at once.

#include "ask/stream_session.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace klctl {
namespace {
using std::chrono::milliseconds;
using std::chrono::steady_clock;

int remaining(const Deadline& deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<milliseconds>(*deadline - steady_clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, std::numeric_limits<int>::max()));
}

}  // namespace

StreamSession::StreamSession(milliseconds timeout, const Job& job)
    : courier_(timeout, [&](int loader, int klctl) { runJob(loader, klctl, job); }) {}

StreamSession::Next StreamSession::next(kl::message& m, const Deadline& deadline, int interrupt) {
  pollfd watched[] = {{courier_.socket(), POLLIN, 0}, {interrupt, POLLIN, 0}};
  int ready;
  do ready = ::poll(watched, 2, remaining(deadline));
  while (ready < 0 && errno == EINTR);
  if (watched[1].revents != 0) return kInterrupted;
  if (ready <= 0) return kLate;
  Bytes bytes;
  if (receiveBytes(courier_.socket(), bytes, {}) != Received::kWhole) throw noLoader("the loader went away");
  if (bytes.empty()) return kEnded;
  m = kl::message(bytes);
  return kMessage;
}

}  // namespace klctl
