// Tests of a service with Catch2.

#define CATCH_CONFIG_MAIN
#include <catch2/catch.hpp>

#include "kl/test.h"

namespace {

class Echo : public kl::Handler {
  kl::message cmdGet(const kl::message& request) override {
    kl::message reply;
    reply.insert(kl::STD_DESCR, request.get(kl::STD_DESCR, ""));
    return reply;
  }
};

}  // namespace

TEST_CASE("a handler answers a peer") {
  kl::test::TestBus bus(34);
  Echo echo;
  bus.add(0, echo);
  kl::test::Peer peer(bus);
  kl::message m;
  m.insert(kl::STD_DESCR, "well");
  CHECK(peer.ask({34, 0}, kl::CMD_GET, m).get(kl::STD_DESCR, "") == "well");
}

TEST_CASE("what the kit finds wrong is an exception") {
  kl::test::TestBus bus(34);
  kl::test::Peer peer(bus);
  CHECK_THROWS_AS(peer.send(kl::message()), kl::test::Failure);
}

TEST_CASE("what a script requires comes to the test") {
  kl::test::TestBus bus(34);
  kl::test::Peer asked(bus, 24);
  asked.on(kl::CMD_GET, [](const kl::message&) -> kl::message { throw std::runtime_error("required"); });
  kl::test::Peer asking(bus);
  CHECK_THROWS_WITH(asking.ask({24}, kl::CMD_GET), "required");
}
