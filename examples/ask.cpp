// ask: asks netif for the machine's interfaces, first waiting for the answers, then not, and ends.
//
// Its exit status is 0 when every question was answered and 1 otherwise.

#include <chrono>
#include <iostream>

#include "kl/client.h"
#include "kl/looper.h"
#include "netif.kl.h"

namespace {
using netif::Interface;
using namespace std::chrono_literals;

class Ask : public kl::Looper {
 public:
  Ask() : kl::Looper(kAny) {
    reportTooBig(true);
    interfaces_.setTimeout(3s);
  }

  // Asks for the whole table, chunk by chunk, and waits for each reply: nothing else runs meanwhile.
  bool askAndWait() {
    kl::message request;
    request.insert(kl::SYS_TO, Interface::kRules.path());
    for (;;) {
      kl::message m = request;
      const kl::message reply = exchangeCmd(m, kl::CMD_GETALL, kl::inTicks(3s));
      if (const kl::Error error = kl::Error::of(reply)) return fail(error);
      for (const kl::message interface : reply.get(kl::STD_OBJS, {})) note(Interface::fromMessage(interface));
      if (!reply.has(kl::STD_GETALLID)) return true;
      request.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, kl::BADID));
    }
  }

  // Asks for every interface at once and goes on: each reply, or its time-out, arrives in the callback.
  void askAndGoOn() {
    for (const unsigned int id : ids_) {
      interfaces_.get(id, [this](const kl::Result<Interface>& interface) {
        if (interface) show(*interface);
        else (void)fail(interface.error());
        if (interfaces_.isIdle()) shutdown();
      });
    }
    if (!ids_.empty()) run();
  }

  bool failed() const { return failed_; }

 private:
  void note(const Interface& interface) {
    ids_.push_back(interface.id);
    std::cout << interface.name.value_or("?") << ": " << (interface.up.value_or(false) ? "up" : "down")
              << ", MTU " << interface.mtu.value_or(0)
              << ", IPv6 addresses: " << (interface.addresses ? interface.addresses->size() : 0) << "\n";
  }

  static void show(const Interface& interface) {
    std::cout << "interface " << interface.id << ": " << interface.rx_bytes.value_or(0) << " bytes in, "
              << interface.tx_bytes.value_or(0) << " bytes out\n";
  }

  bool fail(const kl::Error& error) {
    failed_ = true;
    std::cout << "netif: " << error.describe() << "\n";
    return false;
  }

  std::vector<unsigned int> ids_;
  bool failed_ = false;
  kl::Client<Interface> interfaces_{*this};
};

}  // namespace

int main() {
  Ask ask;
  if (ask.askAndWait()) ask.askAndGoOn();
  return ask.failed() ? 1 : 0;
}
