// The courier: one Looper that exchanges what it is given, or that does a job.

#include "ask/courier.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "ask/pipe.h"

namespace klctl {
namespace {
constexpr int kInheritedSocket = 3;   // where a Looper looks for its connection
constexpr int kFirstFreeSocket = 10;  // out of its way

// Nobody asked for what is no reply, so nothing gathers in the queue.
class Courier : public kl::Looper {
 public:
  Courier() : kl::Looper(kInherited) {}
  bool filterMessage(const kl::message&) override { return true; }
};

// Gives the descriptors their places, keeps the library's lines off the results, leaves no core file
// behind and never outlives klctl.
int settle(int loaderSocket, int klctlSocket) {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  (void)::prctl(PR_SET_DUMPABLE, 0);
  klctlSocket = ::fcntl(klctlSocket, F_DUPFD_CLOEXEC, kFirstFreeSocket);
  (void)::dup2(loaderSocket, kInheritedSocket);
  (void)::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
  return klctlSocket;
}

Bytes carryOut(Courier& courier, const Bytes& request) {
  Order order;
  std::memcpy(&order, request.data(), sizeof order);
  kl::message m(request.data() + sizeof order, static_cast<unsigned int>(request.size() - sizeof order));
  Bytes reply;
  if (order.kind == Order::kExchange) courier.exchangeMessage(m, order.timeoutTicks).flatten(reply);
  else courier.sendMessage(m);
  return reply;
}

}  // namespace

void runCourier(int loaderSocket, int klctlSocket) {
  const int klctl = settle(loaderSocket, klctlSocket);
  Courier courier;
  Bytes bytes;
  bool connected = sendBytes(klctl, bytes);
  while (connected && receiveBytes(klctl, bytes, {}) == Received::kWhole && bytes.size() >= sizeof(Order))
    connected = sendBytes(klctl, carryOut(courier, bytes));
  ::_exit(0);
}

void runJob(int loaderSocket, int klctlSocket, const Job& job) {
  const int klctl = settle(loaderSocket, klctlSocket);
  JobLooper looper;
  const auto giveBytes = [klctl](const Bytes& bytes) {
    if (!sendBytes(klctl, bytes)) ::_exit(0);
  };
  giveBytes({});
  job(looper, [&](const kl::message& m) {
    Bytes bytes;
    m.flatten(bytes);
    giveBytes(bytes);
  });
  giveBytes({});
  ::_exit(0);
}

}  // namespace klctl
