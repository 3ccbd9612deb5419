// A test of somebody who has only what is installed, without any test framework.

#include <kl/test.h>

#include <cstdio>

namespace {

class Echo : public kl::Handler {
  kl::message cmdGet(const kl::message& request) override {
    kl::message reply;
    reply.insert(kl::STD_DESCR, request.get(kl::STD_DESCR, ""));
    return reply;
  }
};

}  // namespace

int main() {
  kl::test::TestBus bus(34);
  Echo echo;
  bus.add(0, echo);
  kl::test::Peer peer(bus);
  kl::message m;
  m.insert(kl::STD_DESCR, "well");
  std::printf("all is %s\n", peer.ask({34, 0}, kl::CMD_GET, m).get(kl::STD_DESCR, "").c_str());
}
