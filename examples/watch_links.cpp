// watch_links: prints each interface of netif as it appears, changes and disappears, until it is interrupted.
//
// netif need not run yet, and may crash or leave: kl::Follower finds it again and reports the differences.

#include <csignal>
#include <cstdio>
#include <iostream>

#include "kl/follower.h"
#include "kl/looper.h"
#include "netif.kl.h"

namespace {
using netif::Interface;

constexpr unsigned int kSecondsADay = 86400;

class WatchLinks : public kl::Follower<Interface> {
 private:
  void added(const Interface& link) override { print(textOf(link)); }

  void changed(const Interface& before, const Interface& now) override {
    if (textOf(before) != textOf(now)) print(textOf(now));  // else only its counters moved
  }

  void removed(const Interface& link) override { print(link.name.value_or("?") + " is gone"); }

  void complete() override { print("that is all of them: " + std::to_string(size())); }

  void lost(const kl::Error& error) override {
    print("netif is lost" + (error ? ": " + error.describe() : ""));
  }

  static std::string textOf(const Interface& link) {
    const std::size_t addresses =
        (link.addresses ? link.addresses->size() : 0) + (link.addresses4 ? link.addresses4->size() : 0);
    const std::string description = link.descr.value_or("");
    return link.name.value_or("?") + ": " + (link.up.value_or(false) ? "up" : "down") + ", MTU " +
           std::to_string(link.mtu.value_or(0)) + ", addresses: " + std::to_string(addresses) +
           (description.empty() ? "" : ", " + description);
  }

  // With the time of the machine's time zone in front; the system service knows it, without one it is UTC.
  static void print(const std::string& line) {
    const unsigned int second = kl::getLooper()->getLocaltime() % kSecondsADay;
    char time[sizeof "23:59:59 "];
    (void)std::snprintf(time, sizeof time, "%02u:%02u:%02u ", second / 3600, second / 60 % 60, second % 60);
    std::cout << time << line << std::endl;
  }
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
  links.follow();
  loop.run();
}
