// The protocol is one datagram of lines NAME=VALUE to a socket whose name stands in the environment.  The variables are
// the loader's own: no service gets them (config/environment.cpp).

#include "life/supervisor.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

namespace loader {
namespace {

constexpr char kSocketVariable[] = "NOTIFY_SOCKET";
constexpr char kWatchdogVariable[] = "WATCHDOG_USEC";
constexpr char kWatchedVariable[] = "WATCHDOG_PID";
constexpr unsigned long long kMicrosecondsPerTick = 10000;
constexpr timeval kPatience{0, 500000};

unsigned long long numberIn(const char* variable) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? 0 : std::strtoull(text, nullptr, 10);
}

// The length of the address; 0 where there is none, or none of a kind that is known.
socklen_t readAddress(sockaddr_un& address) {
  const char* const text = std::getenv(kSocketVariable);
  const std::string_view name = text == nullptr ? "" : text;
  if (name.size() < 2 || name.size() >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@'))
    return 0;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  if (name[0] == '@') address.sun_path[0] = '\0';
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

// At half of the time after which the manager takes the loader for dead.
unsigned int readAliveTicks() {
  const unsigned long long watched = numberIn(kWatchedVariable);
  const unsigned long long time = numberIn(kWatchdogVariable);
  if (time == 0 || (watched != 0 && watched != static_cast<unsigned long long>(::getpid()))) return 0;
  constexpr unsigned long long kMost = std::numeric_limits<int>::max();
  return static_cast<unsigned int>(std::clamp(time / 2 / kMicrosecondsPerTick, 1ULL, kMost));
}

}  // namespace

Supervisor::Supervisor(kl::ThinRunner& runner)
    : addressLength_(readAddress(address_)), alive_(runner, *this) {
  if (addressLength_ == 0) return;
  socket_ = common::Descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  (void)::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
  aliveTicks_ = readAliveTicks();
}

void Supervisor::tellReady() {
  tell("READY=1\n", 0);
  if (aliveTicks_ > 0) tellAlive();
}

void Supervisor::tellStopping() { tell("STOPPING=1\n", 0); }

void Supervisor::tell(const char* words, int flags) {
  if (addressLength_ == 0) return;
  (void)::sendto(socket_.get(), words, std::strlen(words), flags | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address_), addressLength_);
}

void Supervisor::tellAlive() {
  tell("WATCHDOG=1\n", MSG_DONTWAIT);
  alive_.start(aliveTicks_);
}

}  // namespace loader
