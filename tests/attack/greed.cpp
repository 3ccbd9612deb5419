// One user wants all of the loader's memory, or all of its time.

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/attack/client.h"
#include "tests/attack/scenarios.h"
#include "tests/attack/siege.h"

namespace attack {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr kl::field<std::vector<unsigned char>> kBallast{0x30000003};
constexpr std::size_t kReadBytes = 65536;
constexpr std::size_t kRecordBytes = 900;    // of one subscription: just below what the loader keeps
constexpr unsigned int kSubscriptions = 64;  // of one connection
constexpr unsigned int kPipeline = 500;      // requests in one write
constexpr unsigned int kSubPaths = 8000;     // about what a frame holds
// Of one attacker, while two others ask and answer once.
constexpr unsigned int kMostRequests = 200;
constexpr unsigned int kMostSubPaths = 4000;

// Writes what the socket takes now; false when the loader has closed it.
bool writeSome(RawPeer& peer, const Bytes& bytes, std::size_t& at) {
  const ssize_t n = ::send(peer.fd(), bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (n > 0) at += static_cast<std::size_t>(n);
  return n > 0 || errno == EAGAIN;
}

void readAll(RawPeer& peer) {
  static unsigned char area[kReadBytes];
  while (::recv(peer.fd(), area, sizeof area, MSG_DONTWAIT) > 0) {
  }
}

// A registered connection; one that the loader refuses is counted and tried again.
RawPeer comeIn(Deeds& deeds) {
  for (;;) {
    RawPeer peer;
    if (peer.connect(kPatienceMs) && peer.registerAs(0) != 0) return peer;
    ++deeds.refused;
  }
}

// Whole copies of `bytes`, without end, on connections that are made anew when the loader closes them.
[[noreturn]] void pour(Deeds& deeds, const Bytes& bytes, unsigned int unitsInBytes, bool reads) {
  RawPeer peer = comeIn(deeds);
  ++deeds.inPlace;
  for (std::size_t at = 0;;) {
    if (!writeSome(peer, bytes, at)) {
      ++deeds.refused;
      peer = comeIn(deeds);
      at = 0;
    }
    if (reads) readAll(peer);
    if (at == bytes.size()) {
      deeds.done += unitsInBytes;
      at = 0;
    } else {
      pollfd entry{peer.fd(), static_cast<short>(POLLOUT | (reads ? POLLIN : 0)), 0};
      (void)::poll(&entry, 1, -1);
    }
  }
}

Bytes pipelineOf(const kl::message& m) {
  const Bytes one = kl::test::frameOf(m);
  Bytes all;
  for (unsigned int n = 0; n < kPipeline; ++n) all.insert(all.end(), one.begin(), one.end());
  return all;
}

kl::message wholeTable() { return kl::test::request({kl::SERVICE_LOADER}, kl::CMD_GETALL, 1); }

// As many sub-paths as one frame holds, each to nobody: an answer each.
Bytes widePath() {
  Ids path{kl::PATH_MULTI};
  for (unsigned int n = 0; n < kSubPaths; ++n) path.insert(path.end(), {1, 0x12345678});
  kl::message m = kl::test::notification(path);
  return kl::test::frameOf(m);
}

Bytes announced(std::size_t length) {
  Bytes bytes;
  for (unsigned int shift = 0; shift < 32; shift += 8)
    bytes.push_back(static_cast<unsigned char>(length >> shift));
  return bytes;
}

}  // namespace

Report hugeFrames(Pace pace, unsigned int attackers, std::size_t bytes) {
  Siege siege("Frames of " + std::to_string(bytes / 1024) + " KiB for the loader", pace);
  Bytes frame = announced(bytes);
  kl::message m = wholeTable();
  m.insert(kBallast, Bytes(kl::FRAME_MOST_BYTES / 2, 1));
  const Bytes content = kl::test::flat(m);
  frame.insert(frame.end(), content.begin(), content.end());
  frame.resize(bytes + 4);
  Report report = siege.run(attackers, [&](unsigned int, Deeds& deeds) { pour(deeds, frame, 1, false); });
  report.promise(siege.deeds() == 0, "a frame that the library does not send was taken");
  return report;
}

Report unfinishedFrames(Pace pace, unsigned int frames) {
  Siege siege(std::to_string(frames) + " unfinished frames", pace);
  Bytes most = announced(kl::FRAME_MOST_BYTES);
  most.resize(kl::FRAME_MOST_BYTES);
  return siege.run(1, [&](unsigned int, Deeds& deeds) {
    std::vector<RawPeer> peers(frames);
    for (RawPeer& peer : peers) {
      if (peer.connect(kPatienceMs) && peer.registerAs(0) != 0 && peer.sendBytes(most)) ++deeds.done;
      else ++deeds.refused;
    }
    ++deeds.inPlace;
    stay();
  });
}

Report unreadReplies(Pace pace, unsigned int askers) {
  Siege siege(std::to_string(askers) + " askers that do not read", pace, kMostRequests);
  const Bytes bytes = pipelineOf(wholeTable());
  return siege.run(askers, [&](unsigned int, Deeds& deeds) { pour(deeds, bytes, kPipeline, false); });
}

Report pipelinedTables(Pace pace, unsigned int attackers) {
  Siege siege("Pipelined requests for the table, from " + std::to_string(attackers), pace, kMostRequests);
  const Bytes bytes = pipelineOf(wholeTable());
  return siege.run(attackers, [&](unsigned int, Deeds& deeds) { pour(deeds, bytes, kPipeline, true); });
}

Report widePaths(Pace pace, unsigned int attackers) {
  Siege siege("PATH_MULTI as wide as a frame, from " + std::to_string(attackers), pace, kMostSubPaths);
  const Bytes bytes = widePath();
  return siege.run(attackers, [&](unsigned int, Deeds& deeds) { pour(deeds, bytes, kSubPaths, true); });
}

Report manySubscriptions(Pace pace, unsigned int connections) {
  Siege siege(std::to_string(connections) + " connections with 64 subscriptions", pace);
  return siege.run(1, [&](unsigned int, Deeds& deeds) {
    std::vector<RawPeer> peers(connections);
    kl::message m;
    m.insert(kBallast, Bytes(kRecordBytes, 1));
    for (RawPeer& peer : peers) {
      if (!peer.connect(kPatienceMs) || peer.registerAs(0) == 0) {
        ++deeds.refused;
        continue;
      }
      for (unsigned int n = 0; n < kSubscriptions; ++n) {
        kl::message subscribe = kl::test::request({kl::SERVICE_LOADER}, kl::CMD_SUBSCRIBE, n + 1, {n});
        subscribe.merge(m);
        if (peer.send(subscribe)) ++deeds.done;
        else ++deeds.refused;
        readAll(peer);
      }
    }
    ++deeds.inPlace;
    stay();
  });
}

Report fullQueue(unsigned int frames) {
  constexpr unsigned int kReceiver = 902;
  constexpr unsigned int kHonest = 77777;
  Report report{"One sender fills the queue of a service", {}, {}, 0};
  kl::test::LoaderProcess loader;
  RawPeer victim;
  report.promise(victim.connect(kPatienceMs) && victim.registerAs(kReceiver) == kReceiver, "no victim");
  Attackers army;
  army.start(1, [&](unsigned int, Deeds& deeds) {
    RawPeer peer = comeIn(deeds);
    kl::message m = kl::test::request({kReceiver, 0}, kl::CMD_GET, 1);
    m.insert(kBallast, Bytes(4096, 1));
    const Bytes frame = kl::test::frameOf(m);
    for (unsigned int n = 0; n < frames && peer.sendBytes(frame); ++n, ++deeds.done) readAll(peer);
    ++deeds.inPlace;
    stay();
  });
  Client other;  // takes the table behind everything that the attacker sent
  const auto queued = other.row(kReceiver).get(kl::SVC_QUEUE, 0);
  kl::message honest = kl::test::request({kReceiver, 0}, kl::CMD_GET, kHonest);
  (void)other.peer().send(honest);
  const bool isBusy = kl::isError(other.peer().receiveReply(kHonest, 0).value_or(kl::message()));
  (void)other.row(kReceiver);  // its answer comes behind an error for the request
  unsigned int before = 0;
  bool hasArrived = false;
  while (!hasArrived) {
    const auto m = victim.receive(2000);
    if (!m) break;
    hasArrived = m->get(kl::SYS_REQID, 0) == kHonest;
    before += hasArrived ? 0 : 1;
  }
  report.figure("frames of the attacker", army.deeds().done);
  report.figure("queued for the service", queued, "bytes");
  report.figure("delivered before the other's request", before);
  report.promise(army.deeds().done == frames, "the attacker could not send");
  report.promise(!isBusy && hasArrived, "the request of another did not arrive");
  return report;
}

}  // namespace attack
