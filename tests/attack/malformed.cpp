// Frames that are none.
//
// Each frame has a connection of its own, because nearly each of them costs its sender the connection: all peers connect,
// then each registers if its frame wants that and sends the frame in the same write, so that the loader finds all frames
// at once, and waits until the loader has closed the connection.  What need not be garbage is followed by the peer's own
// end.
//
// The attackers need a processor of their own, and whoever connects is work for the loader.  What that alone costs the two
// others is measured as well: beside a process that only counts the time, and beside as many peers that come and go
// without a word.  And what the loader's own work for the attackers costs is seen when these use the processor only where
// nobody else wants it.

#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "tests/attack/bystanders.h"
#include "tests/attack/client.h"
#include "tests/attack/frames.h"
#include "tests/attack/scenarios.h"
#include "tests/support/loader_process.h"

namespace attack {
namespace {

using kl::test::LoaderProcess;

constexpr unsigned int kPeers = 50;

using Clock = std::chrono::steady_clock;

struct Attack {
  explicit Attack(unsigned int seed) : maker(seed, kEchoId) {}

  void speak(RawPeer& peer, const Frame& frame) {
    Bytes bytes;
    if (frame.afterHello) bytes = kl::test::frameOf(kl::test::hello(0));
    bytes.insert(bytes.end(), frame.bytes.begin(), frame.bytes.end());
    sent += 1;
    sentBytes += frame.bytes.size();
    (void)peer.sendBytes(bytes);
    if (!frame.costsConnection) peer.halfClose();
  }

  // All peers at the same time.
  template <class Make>
  void round(unsigned int frames, Make make) {
    std::vector<RawPeer> peers(frames);
    for (RawPeer& peer : peers)
      if (!peer.connect(kPatienceMs)) ++refused;
    for (RawPeer& peer : peers) speak(peer, make());
    for (RawPeer& peer : peers)
      if (peer.isDisconnected(kPatienceMs)) ++disconnected;
  }

  void run(unsigned int random, unsigned int structured) {
    for (unsigned int n = 0; n < random; n += kPeers)
      round(std::min(kPeers, random - n), [this] { return maker.random(); });
    for (unsigned int n = 0; n < structured; n += kPeers)
      round(std::min(kPeers, structured - n), [this] { return maker.structured(); });
  }

  FrameMaker maker;
  unsigned long long sent = 0;
  unsigned long long sentBytes = 0;
  unsigned long long disconnected = 0;
  unsigned long long refused = 0;
};

// What the others measure while a process of its own plays round after round.
template <class Round>
Bystanders::Figures takeDuring(Bystanders& bystanders, int policy, int ms, Round round) {
  (void)bystanders.take();
  const pid_t pid = ::fork();
  if (pid == 0) {
    const sched_param none{};
    (void)::sched_setscheduler(0, policy, &none);
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < end) round();
    ::_exit(0);
  }
  (void)::waitpid(pid, nullptr, 0);
  return bystanders.take();
}

// The same number of peers comes and goes without a word.
Bystanders::Figures takeBesideTheSilent(Bystanders& bystanders, int ms) {
  Attack silent(0);
  return takeDuring(bystanders, SCHED_OTHER, ms, [&] {
    silent.round(kPeers, [] { return Frame{{}, false, false}; });
  });
}

// Attackers that use the processor only where nobody else wants it.
Bystanders::Figures takeBesideTheIdle(Bystanders& bystanders, int ms, unsigned int seed) {
  Attack idle(seed);
  return takeDuring(bystanders, SCHED_IDLE, ms,
                    [&] { idle.round(kPeers, [&] { return idle.maker.random(); }); });
}

void noteRoundTrips(Report& report, const std::string& when, const Bystanders::Figures& figures) {
  report.figure("round trips " + when, figures.roundTrips);
  report.figure("  p50", figures.p50Us, "us");
  report.figure("  p99", figures.p99Us, "us");
  report.figure("  worst", figures.worstUs, "us");
}

}  // namespace

Report malformedFrames(unsigned int random, unsigned int structured, unsigned int seed, int compareMs) {
  Report report{"Malformed frames from 50 peers, seed " + std::to_string(seed), {}, {}, 0};
  LoaderProcess loader;
  Bystanders bystanders;
  Client client;
  const auto quiet = bystanders.takeQuiet(compareMs);
  const auto beside = bystanders.takeBeside(compareMs);
  const auto silent = takeBesideTheSilent(bystanders, compareMs);
  const auto idle = takeBesideTheIdle(bystanders, compareMs, seed);
  const std::size_t memory = loader.memory();
  const std::size_t descriptors = loader.descriptors();

  Attack attack(seed);
  const auto begin = Clock::now();
  attack.run(random, structured);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
  const auto attacked = bystanders.take();

  report.figure("frames", attack.sent);
  report.figure("their bytes", attack.sentBytes);
  report.figure("disconnects", attack.disconnected);
  report.figure("time", static_cast<unsigned long long>(ms.count()), "ms");
  noteRoundTrips(report, "quiet", quiet);
  noteRoundTrips(report, "beside a busy process", beside);
  noteRoundTrips(report, "beside silent peers", silent);
  noteRoundTrips(report, "under attack when idle", idle);
  noteRoundTrips(report, "under attack", attacked);
  report.figure("wrong deliveries", attacked.wrong);
  const auto rows = client.table();
  report.figure("loader's memory before", memory / 1024, "KiB");
  report.figure("loader's memory after", loader.memory() / 1024, "KiB");
  report.figure("loader's descriptors before", descriptors);
  report.figure("loader's descriptors after", loader.descriptors());

  report.promise(attack.refused == 0, "a peer could not connect again");
  report.promise(attack.disconnected == attack.sent, "a frame did not cost its sender the connection");
  for (const auto& figures : {quiet, beside, silent, idle, attacked}) {
    report.promise(figures.wrong == 0, "something was delivered that nobody sent");
    report.promise(figures.lost == 0 && figures.roundTrips > 0, "a request of the others was lost");
  }
  report.promise(rows.size() == 4, "the table has other rows than the loader's, the two and the client's");
  report.promise(loader.descriptors() == descriptors, "descriptors were lost");
  report.grownBytes = grownBytes(memory, loader.memory());
  loader.signal(SIGTERM);
  report.promise(loader.waitForEnd(kPatienceMs) == 0, "the loader did not end in order");
  return report;
}

}  // namespace attack
