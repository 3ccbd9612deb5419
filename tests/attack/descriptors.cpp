// Descriptors: all of them taken, few of them in all, and peers that come and go.

#include <poll.h>
#include <sys/resource.h>

#include <chrono>
#include <functional>
#include <vector>

#include "tests/attack/bystanders.h"
#include "tests/attack/client.h"
#include "tests/attack/scenarios.h"
#include "tests/attack/siege.h"
#include "tests/support/doubles/loader_process.h"

namespace attack {
namespace {

using kl::test::LoaderProcess;

constexpr unsigned int kRoom = 40;     // descriptors that the loader has left
constexpr unsigned int kComers = 100;  // peers that want one
constexpr std::size_t kFewDescriptors = 96;
constexpr std::size_t kSpareDescriptors = 16;  // of these, for files that the loader opens for a moment
constexpr unsigned int kLateService = 600;
constexpr const char* kLateConfiguration =
    "[[service]]\nname = \"late\"\nid = 600\nstart = \"demand\"\ncommand = [\"" KL_BIN_DIR
    "/kl-attack-victim\"]\n";

// The deeds of another process cannot be awaited but by looking.
bool comesTrue(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    (void)::poll(nullptr, 0, 5);
  }
  return true;
}

bool leaveRoom(const LoaderProcess& loader) {
  const auto most = static_cast<rlim_t>(loader.descriptors() + kRoom);
  const rlimit limit{most, most};
  return ::prlimit(loader.pid(), RLIMIT_NOFILE, &limit, nullptr) == 0;
}

// Everybody comes at once; those for whom there is room are taken, and the others when these have gone.
unsigned int fillAndEmpty() {
  std::vector<RawPeer> peers(kComers);
  for (RawPeer& peer : peers)
    if (peer.connect(kPatienceMs)) (void)peer.send(kl::test::hello(0));
  unsigned int taken = 0;
  for (RawPeer& peer : peers) {
    const auto ready = peer.receive(kPatienceMs);
    if (ready && ready->get(kl::SYS_CTRL, 0) == kl::CTRL_READY) ++taken;
    peer.close();
  }
  return taken;
}

}  // namespace

Report descriptorExhaustion(unsigned int rounds) {
  Report report{"Every descriptor taken", {}, {}, 0};
  LoaderProcess loader;
  Bystanders bystanders;
  Client client;
  const std::size_t descriptors = loader.descriptors();
  report.promise(leaveRoom(loader), "the loader's limit cannot be set");
  unsigned int taken = 0;
  (void)bystanders.take();
  for (unsigned int n = 0; n < rounds; ++n) taken += fillAndEmpty();
  const auto meanwhile = bystanders.take();
  const bool areBack = comesTrue([&] { return loader.descriptors() == descriptors; });

  report.figure("peers for " + std::to_string(kRoom) + " descriptors", 1ULL * kComers * rounds);
  report.figure("  registered in the end", taken);
  report.figure("round trips meanwhile", meanwhile.roundTrips);
  report.figure("  p99", meanwhile.p99Us, "us");
  report.figure("loader's descriptors before", descriptors);
  report.figure("loader's descriptors after", loader.descriptors());
  report.promise(taken == kComers * rounds, "a peer was not registered when there was room again");
  report.promise(meanwhile.lost == 0 && meanwhile.wrong == 0, "the others were disturbed");
  report.promise(areBack, "descriptors were lost");
  report.promise(client.table().size() == 4, "the table has rows of peers that have gone");
  return report;
}

// One connection too many is accepted and closed, so nobody waits for a descriptor: not root, not the service that
// starts meanwhile, and not a second user.
Report fewDescriptors(Pace pace, unsigned int connections) {
  Siege siege(std::to_string(connections) + " registrations where descriptors are few", pace, 0,
              kLateConfiguration, kFewDescriptors);
  siege.expectDescriptors(3);  // the connection and the two pipes of the service that starts
  std::size_t most = 0;
  bool hasStarted = false;
  Report report = siege.run(
      1, [&](unsigned int, Deeds& deeds) { comeWith(connections, deeds); },
      [&](Report&) {
        Client client;
        const kl::message reply = client.ask({kLateService, 1}, kl::CMD_GET);
        hasStarted = kl::isReply(reply) && !kl::isError(reply);
        most = siege.loader().descriptors();
      });
  report.figure("loader's descriptors at most", most);
  report.promise(siege.deeds() > 0 && siege.deeds() < kFewDescriptors, "the limit was not felt");
  report.promise(hasStarted, "a service could not be started");
  report.promise(most + kSpareDescriptors <= kFewDescriptors, "the loader's own files have no room");
  return report;
}

Report connects(unsigned int times) {
  Report report{"Peers come and go", {}, {}, 0};
  LoaderProcess loader;
  Client client;
  unsigned int registered = 0;
  std::size_t memory = 0;
  const std::size_t descriptors = loader.descriptors();
  const auto begin = std::chrono::steady_clock::now();
  for (unsigned int n = 0; n < times; ++n) {
    if (n % 100 == 0) (void)client.row(kl::SERVICE_LOADER);  // reads the news of all ends on its way
    if (n == times / 10) memory = loader.memory();           // warm
    RawPeer peer;
    if (peer.connect(kPatienceMs) && peer.registerAs(0) != 0) ++registered;
  }
  const auto us =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin);
  const bool areBack = comesTrue([&] { return loader.descriptors() == descriptors; });

  report.figure("connects and disconnects", times);
  report.figure("  each", static_cast<unsigned long long>(us.count()) / times, "us");
  report.figure("loader's memory after a tenth", memory / 1024, "KiB");
  report.figure("loader's memory after", loader.memory() / 1024, "KiB");
  report.figure("loader's descriptors before", descriptors);
  report.figure("loader's descriptors after", loader.descriptors());
  report.promise(registered == times, "a peer was not registered");
  report.promise(areBack, "descriptors were lost");
  report.grownBytes = grownBytes(memory, loader.memory());
  report.promise(client.table().size() == 2, "the table has rows of peers that have gone");
  return report;
}

}  // namespace attack
