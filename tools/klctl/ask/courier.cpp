// The courier from its start to its end.  klctl connects to the loader itself, so that "no loader" is known before the
// library's loop exists; it forks, and waits for the registration.  The child is one Looper that exchanges what it is
// given, or that does a job.

#include "ask/courier.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "ask/pipe.h"
#include "kl/conventions.h"
#include "kl/utilities.h"
#include "services/common/local_socket.h"

namespace klctl {
namespace {
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// --- in the courier's process

constexpr int kFirstFreeSocket = 10;  // above it

// Drops every message that is no reply, since nobody asked for it: nothing gathers in the queue.
class Courier : public kl::Looper {
 public:
  Courier() : kl::Looper(kInherited) {}
  bool filterMessage(const kl::message&) override { return true; }
};

// Gives the descriptors their places, and keeps the library's lines off the results.  The process leaves no core file
// and never outlives klctl.
int prepareProcess(int loaderSocket, int klctlSocket) {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  (void)::prctl(PR_SET_DUMPABLE, 0);
  klctlSocket = ::fcntl(klctlSocket, F_DUPFD_CLOEXEC, kFirstFreeSocket);
  (void)::dup2(loaderSocket, kl::CONNECTION_DESCRIPTOR);
  (void)::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
  return klctlSocket;
}

Bytes performOrder(Courier& courier, const Bytes& bytes) {
  Order order;
  std::memcpy(&order, bytes.data(), sizeof order);
  kl::message m(bytes.data() + sizeof order, static_cast<unsigned int>(bytes.size() - sizeof order));
  Bytes reply;
  if (order.kind == Order::kExchange) courier.exchangeMessage(m, order.timeoutTicks).flatten(reply);
  else courier.sendMessage(m);
  return reply;
}

// --- in klctl's process

// The library's loop aborts when the loader does not confirm for 10 s: the watch is the quicker one.
constexpr milliseconds kLongestRegistration(9000);
constexpr milliseconds kTick(10);

// Limits the time of connect() to a loader that accepts no connection and whose backlog is full; 0 is no limit.
void limitConnecting(int fd, milliseconds limit) {
  timeval time{};
  time.tv_sec = static_cast<time_t>(limit.count() / 1000);
  time.tv_usec = static_cast<suseconds_t>(limit.count() % 1000 * 1000);
  (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

common::Descriptor connectToLoader(milliseconds limit) {
  const std::string path = kl::loaderSocketPath();
  common::Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.isOpen()) throw noLoader(std::string("cannot make a socket: ") + std::strerror(errno));
  limitConnecting(fd.get(), limit);
  if (!common::connectTo(fd.get(), path)) {
    if (errno == EAGAIN) throw noLoader("the loader at " + path + " accepts no connections");
    throw noLoader("no loader runs at " + path + ": " + std::strerror(errno));
  }
  limitConnecting(fd.get(), milliseconds(0));
  return fd;
}

}  // namespace

void runCourier(int loaderSocket, int klctlSocket) {
  const int klctl = prepareProcess(loaderSocket, klctlSocket);
  Courier courier;
  Bytes bytes;
  bool connected = sendBytes(klctl, bytes);
  while (connected && receiveBytes(klctl, bytes, {}) == Received::kWhole && bytes.size() >= sizeof(Order))
    connected = sendBytes(klctl, performOrder(courier, bytes));
  ::_exit(0);
}

void runJob(int loaderSocket, int klctlSocket, const Job& job) {
  const int klctl = prepareProcess(loaderSocket, klctlSocket);
  JobLooper looper;
  const auto sendToKlctl = [klctl](const Bytes& bytes) {
    if (!sendBytes(klctl, bytes)) ::_exit(0);
  };
  sendToKlctl({});
  job(looper, [&](const kl::message& m) { sendToKlctl(m.flattened()); });
  sendToKlctl({});
  ::_exit(0);
}

std::string secondsText(milliseconds duration) {
  std::string text = std::to_string(duration.count() / 1000);
  if (const auto rest = duration.count() % 1000; rest != 0) {
    text += "." + std::to_string(1000 + rest).substr(1);
    text.erase(text.find_last_not_of('0') + 1);
  }
  return text + " s";
}

int ticksOf(milliseconds duration) { return static_cast<int>((duration + kTick - milliseconds(1)) / kTick); }

Failure noLoader(const std::string& sentence) { return {Status::kNoLoader, sentence}; }

Failure noReply(milliseconds timeout) {
  return {Status::kTimeout, "no reply within " + secondsText(timeout)};
}

Failure stuckLoader() {
  return {Status::kTimeout, "the loader does not read, or it began a frame that it did not end"};
}

CourierProcess::CourierProcess(milliseconds timeout, const Body& body) {
  const common::Descriptor loader = connectToLoader(timeout);
  start(loader.get(), body);
  awaitRegistration(timeout);
}

void CourierProcess::start(int loaderSocket, const Body& body) {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
    throw noLoader(std::string("cannot make a socket pair: ") + std::strerror(errno));
  }
  pid_ = ::fork();
  if (pid_ == 0) {
    ::close(pair[0]);
    body(loaderSocket, pair[1]);
    ::_exit(0);
  }
  ::close(pair[1]);
  socket_ = pair[0];
  if (pid_ < 0) {
    ::close(socket_);
    throw noLoader(std::string("cannot start a process: ") + std::strerror(errno));
  }
}

void CourierProcess::awaitRegistration(milliseconds timeout) {
  const milliseconds limit = std::min(timeout, kLongestRegistration);
  Bytes nothing;
  const Received received = receiveBytes(socket_, nothing, steady_clock::now() + limit);
  if (received == Received::kWhole) return;
  end();  // the destructor of an object that is not made does not run
  if (received == Received::kLate)
    throw noLoader("the loader did not confirm the registration within " + secondsText(limit));
  throw noLoader("the loader refused the registration");
}

void CourierProcess::end() {
  if (pid_ <= 0) return;
  ::close(socket_);
  (void)::kill(pid_, SIGKILL);
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  socket_ = -1;
}

}  // namespace klctl
