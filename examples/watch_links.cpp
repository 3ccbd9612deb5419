// watch_links: prints each interface of netif as it appears, changes and disappears, until it is interrupted.
//
// netif need not run yet, and may crash or leave: kl::Watcher finds it again and reports the differences.

#include <csignal>
#include <cstdio>
#include <iostream>

#include "kl/looper.h"
#include "kl/watcher.h"
#include "netif.kl.h"

namespace {
constexpr unsigned int kSecondsADay = 86400;

class WatchLinks : public kl::Watcher {
 private:
  void objectChanged(const kl::message& link) override {
    const Shown now{link.get(netif::NAME, "?"), textOf(link)};
    Shown& before = shown_[link.get(kl::STD_ID, kl::BADID)];
    if (now == before) return;  // reported again, or only its counters moved
    before = now;
    print(now.name + ": " + now.text);
  }

  void objectRemoved(unsigned int id) override {
    print(shown_[id].name + " is gone");
    shown_.erase(id);
  }

  void tableComplete() override { print("that is all of them: " + std::to_string(shown_.size())); }

  void providerLost(const kl::message& reason) override { print("netif is lost" + why(reason)); }

  static std::string why(const kl::message& reason) {
    return kl::isError(reason) ? ": " + kl::getError(reason) : "";
  }

  static std::string textOf(const kl::message& link) {
    const std::size_t addresses =
        link.get(netif::ADDRESSES, {}).size() + link.get(netif::ADDRESSES4, {}).size();
    const std::string description = link.get(kl::STD_DESCR, "");
    return std::string(link.get(netif::UP, false) ? "up" : "down") + ", MTU " +
           std::to_string(link.get(netif::MTU, 0)) + ", addresses: " + std::to_string(addresses) +
           (description.empty() ? "" : ", " + description);
  }

  // With the time of the machine's time zone in front; the system service knows it, without one it is UTC.
  static void print(const std::string& line) {
    const unsigned int second = kl::getLooper()->getLocaltime() % kSecondsADay;
    char time[sizeof "23:59:59 "];
    (void)std::snprintf(time, sizeof time, "%02u:%02u:%02u ", second / 3600, second / 60 % 60, second % 60);
    std::cout << time << line << std::endl;
  }

  struct Shown {
    std::string name;
    std::string text;
    friend bool operator==(const Shown&, const Shown&) = default;
  };

  std::map<unsigned int, Shown> shown_;  // by index
};

void endLoop(void* loop, int) { static_cast<kl::Looper*>(loop)->shutdown(); }

}  // namespace

int main() {
  kl::Looper loop(kl::Looper::kAny);
  loop.reportTooBig(true);
  loop.addSighandler(SIGINT, &loop, endLoop, true);
  loop.addSighandler(SIGTERM, &loop, endLoop, true);
  WatchLinks links;
  loop.addHandler(1, &links);
  links.watch({netif::SERVICE});
  loop.run();
}
