#include "tests/attack/bystanders.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <vector>

#include "tests/attack/client.h"

namespace attack {
namespace {

using Clock = std::chrono::steady_clock;
using Figures = Bystanders::Figures;

bool hasInput(int fd, int ms) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, ms) == 1;
}

// The only thing that anybody may be sent unasked.
bool isNewsOfAnEnd(const kl::message& m) {
  return !kl::isReply(m) && m.get(kl::SYS_CMD, kl::CMD_NOOP) == kl::CMD_DISCONNECTED &&
         m.get(kl::SYS_TO, {}).empty() && m.get(kl::SYS_FROM, {}).size() == 1;
}

class Counter {
 public:
  void add(unsigned int us) { us_.push_back(us); }
  Figures take() {
    std::sort(us_.begin(), us_.end());
    figures.roundTrips = static_cast<unsigned int>(us_.size());
    if (!us_.empty()) {
      figures.p50Us = us_[us_.size() / 2];
      figures.p99Us = us_[us_.size() * 99 / 100];
      figures.worstUs = us_.back();
    }
    us_.clear();
    const Figures result = figures;
    figures = {};
    return result;
  }
  Figures figures{};

 private:
  std::vector<unsigned int> us_;
};

// Answers whoever holds the other end; the process ends with it.
void report(int control, Counter& counter) {
  char request = 0;
  if (::read(control, &request, 1) != 1) ::_exit(0);
  const Figures figures = counter.take();
  if (::write(control, &figures, sizeof figures) != static_cast<ssize_t>(sizeof figures)) ::_exit(1);
}

void askOnce(RawPeer& peer, unsigned int serial, Counter& counter) {
  kl::message m = kl::test::request({kEchoId, 0}, kl::CMD_GET, serial);
  m.insert(kl::STD_ID, serial);
  const auto begin = Clock::now();
  if (!peer.send(m)) return void(++counter.figures.lost);
  while (const auto answer = peer.receive(kPatienceMs)) {
    const bool isMine = kl::isReply(*answer) && answer->get(kl::SYS_REQID, 0) == serial &&
                        answer->get(kl::STD_ID, 0) == serial && answer->get(kl::SYS_FROM, {}) == Ids{kEchoId};
    if (!isMine) {
      if (isNewsOfAnEnd(*answer)) ++counter.figures.ends;
      else ++counter.figures.wrong;
      continue;
    }
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
    return counter.add(static_cast<unsigned int>(us.count()));
  }
  ++counter.figures.lost;
}

[[noreturn]] void runAsker(int control, RawPeer& peer) {
  Counter counter;
  for (unsigned int serial = 1;; ++serial) {
    if (hasInput(control, 0)) report(control, counter);
    askOnce(peer, serial, counter);
    if (counter.figures.lost > 0 && hasInput(control, -1)) report(control, counter);
  }
}

void answer(RawPeer& peer, const kl::message& m, Counter& counter) {
  if (isNewsOfAnEnd(m)) return void(++counter.figures.ends);
  const Ids from = m.get(kl::SYS_FROM, {});
  if (kl::isReply(m) || from != Ids{kAskerId} || !m.has(kl::STD_ID)) return void(++counter.figures.wrong);
  kl::message reply = kl::test::replyTo(m);
  reply.insert(kl::STD_ID, m.get(kl::STD_ID, 0));
  if (!peer.send(reply)) ++counter.figures.lost;
}

[[noreturn]] void runEcho(int control, RawPeer& peer) {
  Counter counter;
  for (;;) {
    pollfd entries[2] = {{control, POLLIN, 0}, {peer.fd(), POLLIN, 0}};
    (void)::poll(entries, 2, -1);
    if (entries[0].revents != 0) report(control, counter);
    if (entries[1].revents == 0) continue;
    const auto first = peer.receive(0);
    if (!first && peer.isDisconnected(0)) ::_exit(1);
    for (auto m = first; m; m = peer.receive(0)) answer(peer, *m, counter);
  }
}

// A process that runs the function once it has registered.
kl::test::ChildProcess startPeer(unsigned int id, int& control, void (*run)(int, RawPeer&)) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
  kl::test::ChildProcess process([&] {
    ::close(ends[0]);
    RawPeer peer;
    if (!peer.connect(kPatienceMs) || peer.registerAs(id) != id) ::_exit(1);
    const char ready = 1;
    if (::write(ends[1], &ready, 1) == 1) run(ends[1], peer);
    ::_exit(1);
  });
  ::close(ends[1]);
  control = ends[0];
  char ready = 0;
  if (::read(control, &ready, 1) != 1) std::abort();
  return process;
}

Figures ask(int control) {
  Figures figures{};
  const char request = 1;
  const bool isThere = ::send(control, &request, 1, MSG_NOSIGNAL) == 1 &&
                       ::read(control, &figures, sizeof figures) == static_cast<ssize_t>(sizeof figures);
  if (!isThere) figures.lost = 1;  // it lost its connection and ended
  return figures;
}

}  // namespace

Bystanders::Bystanders()
    : echo_(startPeer(kEchoId, control_[1], runEcho)), asker_(startPeer(kAskerId, control_[0], runAsker)) {}

Bystanders::~Bystanders() {
  for (const int control : control_) ::close(control);
}

Bystanders::Figures Bystanders::take() {
  Figures figures = ask(control_[0]);
  const Figures echo = ask(control_[1]);
  figures.lost += echo.lost;
  figures.wrong += echo.wrong;
  figures.ends += echo.ends;
  return figures;
}

Bystanders::Figures Bystanders::takeQuiet(int ms) {
  (void)take();
  (void)::poll(nullptr, 0, ms);
  return take();
}

Bystanders::Figures Bystanders::takeBeside(int ms) {
  (void)take();
  const auto end = Clock::now() + std::chrono::milliseconds(ms);
  while (Clock::now() < end) {
  }
  return take();
}

}  // namespace attack
