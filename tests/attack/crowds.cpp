// One user comes with more processes, connections or ends than there is room for.

#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "tests/attack/client.h"
#include "tests/attack/scenarios.h"
#include "tests/attack/siege.h"

namespace attack {
namespace {

constexpr const char* kStateFolder = "/kelo/loader";
constexpr const char* kCounterFile = "next-id";
constexpr unsigned int kRootsIds = 64;
constexpr unsigned int kLeastIdsSaved = 512;    // at once, on average
constexpr unsigned int kSpareReplacements = 3;  // at the start and the end, and for root's ids

constexpr const char* kWideQuota =
    "[quota]\nregistrations = 1000000\nregistration_burst = 1000000\n"
    "[quota.user]\nconnections = 6000\n[quota.all]\nconnections = 6000\n";

void comeAndGo(Deeds& deeds) {
  ++deeds.inPlace;
  for (;;) {
    RawPeer peer;
    if (peer.connect(kPatienceMs) && peer.registerAs(0) != 0) ++deeds.done;
    else ++deeds.refused;
  }
}

// Counts how often a file came into a folder under its final name.
class Replacements {
 public:
  explicit Replacements(const char* folder) : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    (void)::inotify_add_watch(fd_, folder, IN_MOVED_TO | IN_CLOSE_WRITE);
  }
  ~Replacements() { ::close(fd_); }
  Replacements(const Replacements&) = delete;
  Replacements& operator=(const Replacements&) = delete;

  unsigned int take() {
    alignas(inotify_event) char events[65536];
    for (ssize_t n; (n = ::read(fd_, events, sizeof events)) > 0;)
      for (ssize_t at = 0; at < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(events + at);
        count_ += std::string(event->len > 0 ? event->name : "") == kCounterFile ? 1 : 0;
        at += static_cast<ssize_t>(sizeof *event + event->len);
      }
    return count_;
  }

 private:
  int fd_;
  unsigned int count_ = 0;
};

}  // namespace

Report manyRegistrations(Pace pace, unsigned int connections) {
  Siege siege(std::to_string(connections) + " registrations of one user", pace);
  return siege.run(1, [&](unsigned int, Deeds& deeds) { comeWith(connections, deeds); });
}

Report endsAtOnce(Pace pace, unsigned int connections) {
  Siege siege(std::to_string(connections) + " connections that end at once", pace, 0, kWideQuota);
  Report report = siege.run(4, [&](unsigned int, Deeds& deeds) { comeWith(connections / 4, deeds); });
  report.promise(siege.deeds() == connections, "not all of them came in");
  return report;
}

Report comingsAndGoings(Pace pace, unsigned int attackers) {
  Siege siege("Registering and closing at full rate, " + std::to_string(attackers) + " processes", pace);
  return siege.run(attackers, [](unsigned int, Deeds& deeds) { comeAndGo(deeds); });
}

Report silentConnectors(Pace pace, unsigned int connections) {
  Siege siege(std::to_string(connections) + " connections that say nothing", pace);
  return siege.run(1, [&](unsigned int, Deeds& deeds) {
    std::vector<RawPeer> peers(connections);
    for (RawPeer& peer : peers)
      if (peer.connect(kPatienceMs)) ++deeds.done;
    ++deeds.inPlace;
    for (std::size_t i = 0;; i = (i + 1) % peers.size()) {
      if (!peers[i].isDisconnected(1)) continue;
      peers[i].close();
      ++deeds.refused;
      if (peers[i].connect(kPatienceMs)) ++deeds.done;
    }
  });
}

Report pickedIds(Pace pace, unsigned int attackers) {
  Siege siege("Running through the picked ids, " + std::to_string(attackers) + " processes", pace);
  Replacements files(kStateFolder);
  unsigned int again = 0;
  Report report = siege.run(
      attackers, [](unsigned int, Deeds& deeds) { comeAndGo(deeds); },
      [&](Report&) {
        std::set<unsigned int> met;
        for (unsigned int n = 0; n < kRootsIds; ++n) {
          const Client client;
          if (client.id() != 0 && !met.insert(client.id()).second) ++again;
        }
      });
  const unsigned int replaced = files.take();
  report.figure("replacements of the counter's file", replaced);
  report.promise(again == 0, "an id was picked twice");
  report.promise(replaced <= kSpareReplacements + siege.deeds() / kLeastIdsSaved,
                 "the file of the counter was replaced for single ids");
  return report;
}

}  // namespace attack
