// Frames that are none.
//
// Each frame has a connection of its own, because nearly each of them costs its sender the connection: a peer connects,
// registers if the frame wants that, sends the frame in the same write, waits until the loader has closed the connection,
// and comes again.  A frame that need not be garbage is followed by the peer's own end.
//
// The attackers need a processor of their own, and whoever connects is work for the loader.  Their mere cost to the two
// others is measured as well: beside a process that only counts the time, and beside as many peers that come and go
// without a word.  And what the loader's own work for the attackers costs is seen when these use the processor only where
// nobody else wants it.

#include <sched.h>
#include <signal.h>

#include <chrono>

#include "tests/attack/bystanders.h"
#include "tests/attack/client.h"
#include "tests/attack/frames.h"
#include "tests/attack/peers.h"
#include "tests/attack/scenarios.h"
#include "tests/support/doubles/loader_process.h"

namespace attack {
namespace {

using kl::test::LoaderProcess;

using Clock = std::chrono::steady_clock;

void comeAndSay(const Frame& frame, Peers::Tally& tally) {
  RawPeer peer;
  if (!peer.connect(kPatienceMs)) return void(++tally.refused);
  Bytes bytes;
  if (frame.afterHello) bytes = kl::test::frameOf(kl::test::hello(0));
  bytes.insert(bytes.end(), frame.bytes.begin(), frame.bytes.end());
  ++tally.sent;
  tally.sentBytes += static_cast<unsigned int>(frame.bytes.size());
  (void)peer.sendBytes(bytes);
  if (!frame.costsConnection) peer.halfClose();
  if (peer.isDisconnected(kPatienceMs)) ++tally.disconnected;
}

unsigned int shareOf(unsigned int peer, unsigned int frames) {
  return frames / Peers::kCount + (peer < frames % Peers::kCount ? 1 : 0);
}

bool attackWith(Peers& peers, unsigned int random, unsigned int structured, unsigned int seed) {
  return peers.live(SCHED_OTHER, [&](unsigned int peer, Peers::Tally& tally) {
    FrameMaker maker(seed + peer, kEchoId);
    for (unsigned int n = shareOf(peer, random); n > 0; --n) comeAndSay(maker.random(), tally);
    for (unsigned int n = shareOf(peer, structured); n > 0; --n) comeAndSay(maker.structured(), tally);
  });
}

// The round trips of the others while peers come with such frames for a time.
template <class Make>
Bystanders::Figures takeBesidePeers(Bystanders& bystanders, int policy, int ms, unsigned int seed,
                                    Make make) {
  (void)bystanders.take();
  Peers peers;
  const auto end = Clock::now() + std::chrono::milliseconds(ms);
  (void)peers.live(policy, [&](unsigned int peer, Peers::Tally& tally) {
    FrameMaker maker(seed + peer, kEchoId);
    while (Clock::now() < end) comeAndSay(make(maker), tally);
  });
  return bystanders.take();
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
  const auto quiet = bystanders.takeQuiet(compareMs);
  const auto beside = bystanders.takeBeside(compareMs);
  const auto silent = takeBesidePeers(bystanders, SCHED_OTHER, compareMs, seed, [](FrameMaker&) {
    return Frame{{}, false, false};  // nothing, and the end
  });
  const auto idle = takeBesidePeers(bystanders, SCHED_IDLE, compareMs, seed,
                                    [](FrameMaker& maker) { return maker.random(); });
  const std::size_t memory = loader.memory();
  const std::size_t descriptors = loader.descriptors();

  Peers peers;
  const auto begin = Clock::now();
  const bool cameToTheEnd = attackWith(peers, random, structured, seed);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
  const auto attacked = bystanders.take();
  const auto after = bystanders.takeQuiet(compareMs);

  const Peers::Tally& tally = peers.tally();
  report.figure("frames", tally.sent);
  report.figure("their bytes", tally.sentBytes);
  report.figure("disconnects", tally.disconnected);
  report.figure("time", static_cast<unsigned long long>(ms.count()), "ms");
  noteRoundTrips(report, "quiet", quiet);
  noteRoundTrips(report, "beside a busy process", beside);
  noteRoundTrips(report, "beside silent peers", silent);
  noteRoundTrips(report, "under attack when idle", idle);
  noteRoundTrips(report, "under attack", attacked);
  noteRoundTrips(report, "quiet again", after);
  report.figure("wrong deliveries", attacked.wrong);
  const std::size_t descriptorsAfter = loader.descriptors();
  // Not there before: everybody is told of each end, and who does not read that is disconnected in half an hour.
  Client client;
  const auto rows = client.table();
  report.figure("loader's memory before", memory / 1024, "KiB");
  report.figure("loader's memory after", loader.memory() / 1024, "KiB");
  report.figure("loader's descriptors before", descriptors);
  report.figure("loader's descriptors after", descriptorsAfter);

  report.promise(cameToTheEnd && tally.sent == random + structured, "a peer did not send all of its frames");
  report.promise(tally.refused == 0, "a peer could not connect again");
  report.promise(tally.disconnected == tally.sent, "a frame did not cost its sender the connection");
  for (const auto& figures : {quiet, beside, silent, idle, attacked, after}) {
    report.promise(figures.wrong == 0, "something was delivered that nobody sent");
    report.promise(figures.lost == 0 && figures.roundTrips > 0, "a request of the others was lost");
  }
  report.promise(rows.size() == 4, "the table has other rows than the loader's, the two and the client's");
  report.promise(descriptorsAfter == descriptors, "descriptors were lost");
  report.grownBytes = grownBytes(memory, loader.memory());
  loader.signal(SIGTERM);
  report.promise(loader.waitForEnd(kPatienceMs) == 0, "the loader did not end in order");
  return report;
}

}  // namespace attack
