// Both kinds of session talk to a courier.  Every wait of a Session has a deadline; past it the courier is killed.  A
// StreamSession waits for the courier, the user and the clock at once.

#include "ask/session.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "kl/conventions.h"
#include "values/failure.h"

namespace klctl {
namespace {
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The bytes of a message once the library has added what makes it a request.
std::size_t sentBytes(kl::message m) {
  kl::setType(m, kl::TYPE_REQUEST);
  kl::setRequestID(m, kl::BADID);  // the longest form that an id can have
  m.insert(kl::SYS_REPLYEXP, true);
  return m.flattened().size();
}

Bytes withOrder(const Order& order, const Bytes& message) {
  Bytes bytes(sizeof order + message.size());
  std::memcpy(bytes.data(), &order, sizeof order);
  std::copy(message.begin(), message.end(), bytes.begin() + sizeof order);
  return bytes;
}

}  // namespace

void refuseOversized(const kl::message& m) {
  if (const std::size_t size = sentBytes(m); size > kl::FRAME_MOST_BYTES) {
    throw usage("the request is too big: " + std::to_string(size) + " bytes, and a frame carries " +
                std::to_string(kl::FRAME_MOST_BYTES));
  }
}

Session::Session(milliseconds timeout) : timeout_(timeout), courier_(timeout, runCourier) {}

kl::message Session::exchange(const kl::message& request) {
  const kl::message reply(carry(Order::kExchange, request));
  // The library's own time-out comes as an error that is no reply; a service's is one.
  if (!kl::isReply(reply)) throw noReply(timeout_);
  return reply;
}

void Session::send(const kl::message& m) {
  (void)carry(Order::kSend, m);
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::SYS_CMD, kl::CMD_NOOP);
  (void)exchange(request);  // frames are read in order: its reply proves that the message was read, too
}

Bytes Session::carry(Order::Kind kind, const kl::message& m) {
  refuseOversized(m);
  Bytes bytes = m.flattened();
  const Order order{kind, ticksOf(timeout_)};
  const bool sent = sendBytes(courier_.socket(), withOrder(order, bytes));
  const Received received =
      sent ? receiveBytes(courier_.socket(), bytes, steady_clock::now() + timeout_ + kCourierGrace)
           : Received::kEnded;
  if (received == Received::kWhole) return bytes;
  courier_.end();
  if (received == Received::kLate) throw stuckLoader();
  throw noLoader("the loader went away");
}

Interrupt::Interrupt(const std::vector<int>& signals) {
  sigset_t interrupt;
  ::sigemptyset(&interrupt);
  for (const int signal : signals) ::sigaddset(&interrupt, signal);
  fd_ = ::signalfd(-1, &interrupt, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ >= 0) (void)::sigprocmask(SIG_BLOCK, &interrupt, &before_);
}

// A signal that came in time is read, so that it does not end klctl afterwards.
Interrupt::~Interrupt() {
  if (fd_ < 0) return;
  signalfd_siginfo taken;
  while (::read(fd_, &taken, sizeof taken) > 0) {
  }
  ::close(fd_);
  (void)::sigprocmask(SIG_SETMASK, &before_, nullptr);
}

StreamSession::StreamSession(milliseconds timeout, const Job& job)
    : courier_(timeout, [&](int loader, int klctl) { runJob(loader, klctl, job); }) {}

StreamSession::Next StreamSession::next(kl::message& m, const Deadline& deadline, int interrupt) {
  pollfd watched[] = {{courier_.socket(), POLLIN, 0}, {interrupt, POLLIN, 0}};
  const bool isReady = waitReadable(watched, 2, deadline);
  if (watched[1].revents != 0) return kInterrupted;
  if (!isReady) return kLate;
  Bytes bytes;
  if (receiveBytes(courier_.socket(), bytes, {}) != Received::kWhole) throw noLoader("the loader went away");
  if (bytes.empty()) return kEnded;
  m = kl::message(bytes);
  return kArrived;
}

}  // namespace klctl
