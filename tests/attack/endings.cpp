// The loader is told to end in the midst of everything.

#include <signal.h>

#include <random>
#include <string>
#include <vector>

#include "tests/attack/client.h"
#include "tests/attack/scenarios.h"
#include "tests/support/doubles/loader_process.h"

namespace attack {
namespace {

using kl::test::LoaderProcess;

constexpr unsigned int kFirstService = 600;
constexpr unsigned int kServices = 6;
constexpr unsigned int kPeers = 10;
constexpr unsigned int kMostActs = 200;

// Some start with the loader, some by a message, one cannot be started and one ends at once.
std::string services() {
  std::string text;
  for (unsigned int i = 0; i < kServices; ++i) {
    const std::string program = i == 4   ? "/nonexistent"
                                : i == 5 ? "/bin/false"
                                         : KL_BIN_DIR "/kl-attack-victim";
    text += "[[service]]\nname = \"s" + std::to_string(i) + "\"\nid = " + std::to_string(kFirstService + i) +
            "\ncommand = [\"" + program + "\"]\n" + (i % 2 == 1 ? "start = \"demand\"\n" : "");
  }
  return text;
}

class Turmoil {
 public:
  explicit Turmoil(unsigned int seed) : random_(seed) {}

  // Leaves everything half done.
  void stir() {
    for (unsigned int n = 0; n < kPeers; ++n) addPeer();
    for (unsigned int n = upTo(kMostActs); n > 0; --n) act(peers_[upTo(kPeers - 1)]);
  }

  void goOn() {
    for (unsigned int n = upTo(20); n > 0; --n) act(peers_[upTo(kPeers - 1)]);
  }

 private:
  unsigned int upTo(unsigned int most) {
    return std::uniform_int_distribution<unsigned int>(0, most)(random_);
  }

  void addPeer() {
    RawPeer& peer = peers_.emplace_back();
    if (!peer.connect(kPatienceMs)) return;
    auto hello = kl::test::frameOf(kl::test::hello(0));
    if (upTo(4) == 0) hello.resize(upTo(static_cast<unsigned int>(hello.size()) - 1));
    (void)peer.sendBytes(hello);
  }

  void act(RawPeer& peer) {
    kl::message order;
    order.insert(kl::STD_ID, kFirstService + upTo(kServices - 1));
    order.insert(kl::SVC_ACTION, 1 + upTo(3));
    order.merge(kl::test::request({kl::SERVICE_LOADER}, kl::CMD_SETOBJ, 1));
    kl::message follow = kl::test::request({kl::SERVICE_LOADER}, kl::CMD_SUBSCRIBE, 2);
    switch (upTo(6)) {
      case 0: (void)peer.send(order); break;
      case 1: (void)peer.send(follow); break;
      case 2: peer.close(); break;
      case 3: killSomebody(); break;
      default:
        (void)peer.send(kl::test::request({kFirstService + upTo(kServices - 1), 1}, kl::CMD_GET, 3));
        break;
    }
  }

  void killSomebody() {
    if (upTo(9) != 0) return;
    Client client(0);  // the loader may have ended
    const auto pid = static_cast<pid_t>(client.row(kFirstService + upTo(kServices - 1)).get(kl::SVC_PID, 0));
    if (pid > 1) (void)::kill(pid, SIGKILL);
  }

  std::mt19937 random_;
  std::vector<RawPeer> peers_;
};

}  // namespace

Report endings(unsigned int times, unsigned int seed) {
  Report report{"The loader told to end under traffic, seed " + std::to_string(seed), {}, {}, 0};
  unsigned int inOrder = 0;
  for (unsigned int n = 0; n < times; ++n) {
    LoaderProcess loader(services());
    Turmoil turmoil(seed + n);
    turmoil.stir();
    loader.signal(n % 2 == 0 ? SIGTERM : SIGINT);
    turmoil.goOn();
    if (n % 5 == 4) loader.signal(SIGTERM);
    const int status = loader.waitForEnd(kPatienceMs);
    if (status == 0) ++inOrder;
    else report.broken.push_back("ended with status " + std::to_string(status) + ":\n" + loader.log());
  }
  report.figure("endings", times);
  report.figure("  in order", inOrder);
  return report;
}

}  // namespace attack
