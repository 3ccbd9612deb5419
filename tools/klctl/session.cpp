// The session: connects, lets the courier register, and watches over every wait.
//
// S1  klctl connects itself, so that "no loader" is known before the library's loop exists.
// S2  every wait for the courier has a deadline; past it the courier is killed.

#include "session.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "failure.h"
#include "kl/conventions.h"
#include "kl/utilities.h"

namespace klctl {
namespace {
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kTick(10);
// The library's loop aborts when the loader does not confirm for 10 s: the watch is the quicker one.
constexpr milliseconds kLongestRegistration(9000);
// What the library's own time-out is given before the courier counts as stuck: with a reply begun and never
// ended it would wait for ever.
constexpr milliseconds kGrace(1000);
constexpr std::size_t kLargestFrame = 65535;

Failure noLoader(const std::string& sentence) { return {Status::kNoLoader, sentence}; }

std::string seconds(milliseconds duration) {
  std::string text = std::to_string(duration.count() / 1000);
  if (const auto rest = duration.count() % 1000; rest != 0) {
    text += "." + std::to_string(1000 + rest).substr(1);
    text.erase(text.find_last_not_of('0') + 1);
  }
  return text + " s";
}

int ticks(milliseconds duration) { return static_cast<int>((duration + kTick - milliseconds(1)) / kTick); }

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// A loader that accepts nobody fills its backlog and would block connect(): 0 switches the limit off again.
void limitSending(int fd, milliseconds limit) {
  timeval time{};
  time.tv_sec = limit.count() / 1000;
  time.tv_usec = limit.count() % 1000 * 1000;
  (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

int connectToLoader(milliseconds limit) {
  const std::string path = kl::loaderSocketPath();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw noLoader(std::string("cannot make a socket: ") + std::strerror(errno));
  limitSending(fd, limit);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int reason = errno;
    ::close(fd);
    if (reason == EAGAIN) throw noLoader("the loader at " + path + " accepts no connections");
    throw noLoader("no loader runs at " + path + ": " + std::strerror(reason));
  }
  limitSending(fd, milliseconds(0));
  return fd;
}

// The bytes of a message once the library has added what makes it a request.
std::size_t sentBytes(kl::message m) {
  kl::setType(m, kl::TYPE_REQUEST);
  kl::setRequestID(m, kl::BADID);  // the longest form that an id can have
  m.insert(kl::SYS_REPLYEXP, true);
  Bytes bytes;
  m.flatten(bytes);
  return bytes.size();
}

Bytes withOrder(const Order& order, const Bytes& message) {
  Bytes bytes(sizeof order + message.size());
  std::memcpy(bytes.data(), &order, sizeof order);
  std::copy(message.begin(), message.end(), bytes.begin() + sizeof order);
  return bytes;
}

}  // namespace

Session::Session(milliseconds timeout) : timeout_(timeout) {
  const Descriptor loader(connectToLoader(timeout));
  start(loader.get());
  awaitRegistration();
}

Session::~Session() { end(); }

kl::message Session::exchange(const kl::message& request) {
  const kl::message reply(carry(Order::kExchange, request));
  // The library's own time-out comes as an error that is no reply; a service's is one.
  if (!kl::isReply(reply)) throw Failure(Status::kTimeout, "no reply within " + seconds(timeout_));
  return reply;
}

void Session::send(const kl::message& m) {
  (void)carry(Order::kSend, m);
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::SYS_CMD, kl::CMD_NOOP);
  (void)exchange(request);  // frames are taken in order: an answer says that the message was taken, too
}

void Session::start(int loaderSocket) {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
    throw noLoader(std::string("cannot make a socket pair: ") + std::strerror(errno));
  }
  courier_ = ::fork();
  if (courier_ == 0) {
    ::close(pair[0]);
    runCourier(loaderSocket, pair[1]);
  }
  ::close(pair[1]);
  socket_ = pair[0];
  if (courier_ < 0) {
    ::close(socket_);
    throw noLoader(std::string("cannot start a process: ") + std::strerror(errno));
  }
}

void Session::awaitRegistration() {
  const milliseconds limit = std::min(timeout_, kLongestRegistration);
  Bytes nothing;
  const Received received = receiveBytes(socket_, nothing, steady_clock::now() + limit);
  if (received == Received::kWhole) return;
  end();  // the destructor of an object that is not made does not run
  if (received == Received::kLate)
    throw noLoader("the loader did not confirm the registration within " + seconds(limit));
  throw noLoader("the loader refused the registration");
}

Bytes Session::carry(Order::Kind kind, const kl::message& m) {
  if (const std::size_t size = sentBytes(m); size > kLargestFrame) {
    throw usage("the request is too big: " + std::to_string(size) + " bytes, and a frame carries " +
                std::to_string(kLargestFrame));
  }
  Bytes bytes;
  m.flatten(bytes);
  const Order order{kind, ticks(timeout_)};
  const bool sent = sendBytes(socket_, withOrder(order, bytes));
  const Received received =
      sent ? receiveBytes(socket_, bytes, steady_clock::now() + timeout_ + kGrace) : Received::kEnded;
  if (received == Received::kWhole) return bytes;
  end();
  if (received == Received::kLate) {
    throw Failure(Status::kTimeout, "the loader does not read, or it began a frame that it did not end");
  }
  throw noLoader("the loader went away");
}

void Session::end() {
  if (courier_ <= 0) return;
  ::close(socket_);
  (void)::kill(courier_, SIGKILL);
  while (::waitpid(courier_, nullptr, 0) < 0 && errno == EINTR) {
  }
  courier_ = -1;
  socket_ = -1;
}

}  // namespace klctl
