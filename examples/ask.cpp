// ask: asks netif for the machine's interfaces, first waiting for the answers, then not, and ends.
//
// Its exit status is 0 when every question was answered and 1 otherwise.

#include <iostream>

#include "kl/looper.h"
#include "kl/ticks.h"
#include "netif.kl.h"

namespace {
constexpr kl::TickCount kTimeout = kl::inTicks(std::chrono::seconds(3));

class Ask : public kl::Looper {
 public:
  Ask() : kl::Looper(kAny) { reportTooBig(true); }

  // Asks for the whole table, chunk by chunk, and waits for each reply: nothing else runs meanwhile.
  bool askAndWait() {
    kl::message request = question();
    for (;;) {
      kl::message m = request;
      const kl::message reply = exchangeCmd(m, kl::CMD_GETALL, kTimeout);
      if (kl::isError(reply)) return fail(reply);
      for (const kl::message interface : reply.get(kl::STD_OBJS, {})) note(interface);
      if (!reply.has(kl::STD_GETALLID)) return true;
      request.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, kl::BADID));
    }
  }

  // Asks for every interface at once and goes on: each reply, or its time-out, arrives at onReply.
  void askAndGoOn() {
    for (const unsigned int id : ids_) {
      kl::message m = question();
      m.insert(kl::SYS_CMD, kl::CMD_GETOBJ);
      m.insert(kl::STD_ID, id);
      postMessage(m, this, kl::bind<Ask, &Ask::onReply>(), m, kTimeout);
    }
    expected_ = ids_.size();
    if (expected_ > 0) run();
  }

  bool failed() const { return failed_; }

 private:
  static kl::message question() {
    kl::message m;
    m.insert(kl::SYS_TO, {netif::SERVICE});
    return m;
  }

  void note(const kl::message& interface) {
    ids_.push_back(interface.get(kl::STD_ID, kl::BADID));
    std::cout << interface.get(netif::NAME, "?") << ": " << (interface.get(netif::UP, false) ? "up" : "down")
              << ", MTU " << interface.get(netif::MTU, 0)
              << ", IPv6 addresses: " << interface.get(netif::ADDRESSES, {}).size() << "\n";
  }

  void onReply(const kl::message& reply, const kl::message& asked) {
    if (kl::isError(reply)) (void)fail(reply);
    else
      std::cout << "interface " << asked.get(kl::STD_ID, 0) << ": " << reply.get(netif::RX_BYTES, 0)
                << " bytes in, " << reply.get(netif::TX_BYTES, 0) << " bytes out\n";
    if (--expected_ == 0) shutdown();
  }

  bool fail(const kl::message& reply) {
    failed_ = true;
    std::cout << "netif: " << kl::getError(reply) << "\n";
    return false;
  }

  std::vector<unsigned int> ids_;
  std::size_t expected_ = 0;  // replies still to come
  bool failed_ = false;
};

}  // namespace

int main() {
  Ask ask;
  if (ask.askAndWait()) ask.askAndGoOn();
  return ask.failed() ? 1 : 0;
}
