// The session: every wait for the courier has a deadline; past it the courier is killed.

#include "ask/session.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "kl/conventions.h"
#include "values/failure.h"

namespace klctl {
namespace {
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t kLargestFrame = 65535;

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

void refuseOversized(const kl::message& m) {
  if (const std::size_t size = sentBytes(m); size > kLargestFrame) {
    throw usage("the request is too big: " + std::to_string(size) + " bytes, and a frame carries " +
                std::to_string(kLargestFrame));
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
  (void)exchange(request);  // frames are taken in order: an answer says that the message was taken, too
}

Bytes Session::carry(Order::Kind kind, const kl::message& m) {
  refuseOversized(m);
  Bytes bytes;
  m.flatten(bytes);
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

}  // namespace klctl
