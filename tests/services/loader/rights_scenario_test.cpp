// The rights of real users at real services.

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"
#include "tests/support/process/child_process.h"

namespace {

using kl::test::LoaderProcess;
using kl::test::notification;
using kl::test::RawPeer;
using kl::test::request;
using Ids = std::vector<unsigned int>;

constexpr uid_t kOrdinary = 65534;  // "nobody"

class RightsScenario : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  }

  // Runs a part of a test as an ordinary user, in a process of its own, with a peer that has registered.
  static bool holdsForNobody(const std::function<bool(RawPeer& peer)>& part, unsigned int id = 0) {
    return kl::test::holdsAs(kOrdinary, [&] {
      RawPeer peer;
      return peer.connect() && peer.registerAs(id) != 0 && part(peer);
    });
  }

  // True when the request is answered with this error and this text.
  static bool isAnswered(RawPeer& peer, const kl::message& m, unsigned int code,
                         const std::string& text = "") {
    if (!peer.send(m)) return false;
    const auto answer = peer.receiveReply(m.get(kl::SYS_REQID, 0));
    unsigned int got = kl::ERROR_OK;
    if (answer) (void)kl::isError(*answer, &got);
    return answer && got == code && answer->get(kl::SYS_ERRSTR, "") == text;
  }

  static kl::message order(unsigned int action, unsigned int id = 40) {
    kl::message m = request({kl::SERVICE_LOADER}, kl::CMD_SETOBJ, 7);
    m.insert(kl::STD_ID, id);
    m.insert(kl::SVC_ACTION, action);
    return m;
  }
};

// A gateway, and what the users that it speaks for may do.
constexpr unsigned int kGateway = 50;
constexpr char kGatewayFile[] =
    "[rights]\ndaemon = [\"read\", \"change\"]\nsys = [\"read\", \"control\"]\n"
    "[[service]]\nname = \"lab\"\nid = 40\naccess = { bin = \"none\", games = \"all\" }\n"
    "[[service]]\nname = \"web\"\nid = 50\nuser = \"nobody\"\n"
    "speaks_for = [\"daemon\", \"bin\", \"games\", \"@sys\"]\n";

class GatewayScenario : public RightsScenario {
 protected:
  GatewayScenario() {
    EXPECT_TRUE(lab_.connect());
    EXPECT_EQ(lab_.registerAs(40), 40u);
  }

  static kl::message inNameOf(const std::string& user, kl::message m) {
    m.insert(kl::SYS_USER, user);
    return m;
  }
  static kl::message withBits(unsigned int bits, kl::message m) {
    m.insert(kl::SYS_POLICY, bits);
    return m;
  }

  // The user and the bits of the next request at the service.
  std::pair<std::string, unsigned int> whoAsks(unsigned int command) {
    const auto got = lab_.receiveCommand(command);
    return got ? std::pair(got->get(kl::SYS_USER, ""), got->get(kl::SYS_POLICY, 0)) : std::pair("", 0u);
  }

  LoaderProcess loader_{kGatewayFile};
  RawPeer lab_;
};

constexpr char kService[] = "[[service]]\nname = \"lab\"\nid = 40\n";

TEST_F(RightsScenario, EachOrderAtTheLoaderNeedsControl) {
  const LoaderProcess loader(std::string("[rights]\nnobody = [\"read\", \"change\"]\n") + kService);
  EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
    for (const unsigned int action : {kl::SVC_START, kl::SVC_STOP, kl::SVC_RESTART, kl::SVC_LEAVE})
      if (!isAnswered(peer, order(action), kl::ERROR_NOTALLOWED, "lacks the right control")) return false;
    return isAnswered(peer, request({kl::SERVICE_LOADER}, kl::CMD_GETALL, 8), kl::ERROR_OK);
  }));
  EXPECT_TRUE(
      loader.logs("CMD_SETOBJ to loader is not allowed: lacks the right control; see: klctl rights explain "
                  "nobody loader CMD_SETOBJ"));
}

// It would look for the files and users that are named there, and say what it finds.
TEST_F(RightsScenario, TheLoaderComparesAConfigurationForRootAlone) {
  const LoaderProcess loader("[rights]\nnobody = [\"read\", \"control\"]\n");
  EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
    kl::message candidate = request({kl::SERVICE_LOADER}, kl::CMD_RELOAD, 8);
    candidate.insert(kl::RELOAD_CANDIDATE, "");
    return isAnswered(peer, candidate, kl::ERROR_NOTALLOWED, "a configuration is compared for root alone") &&
           isAnswered(peer, request({kl::SERVICE_LOADER}, kl::CMD_RELOAD, 9), kl::ERROR_OK);
  }));
}

TEST_F(RightsScenario, AccessOfTheLoaderSaysWhoMayOrderAndWhoMayLook) {
  {
    const LoaderProcess loader("[loader]\naccess = { nobody = [\"read\", \"control\"] }\n");
    EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
      return isAnswered(peer, order(kl::SVC_STOP, 999),
                        kl::ERROR_UNKNOWNID);  // it is not the right that it lacks
    }));
  }
  const LoaderProcess loader("[rights]\nnobody = \"all\"\n[loader]\naccess = { default = \"none\" }\n");
  EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
    return isAnswered(peer, request({kl::SERVICE_LOADER}, kl::CMD_GETALL, 8), kl::ERROR_NOTALLOWED,
                      "has no rights there");
  }));
}

TEST_F(RightsScenario, WithoutAnyRightAtAServiceNothingReachesIt) {
  const LoaderProcess loader(std::string("[rights]\nnobody = \"all\"\n") + kService +
                             "access = { nobody = \"none\" }\n");
  RawPeer lab = RawPeer::registered(40);
  EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
    return isAnswered(peer, request({40, 3}, kl::CMD_GET, 8), kl::ERROR_NOTALLOWED, "has no rights there");
  }));
  RawPeer root = RawPeer::registered();
  ASSERT_TRUE(root.send(request({40, 3}, kl::CMD_SET, 9)));
  const auto first = lab.receiveCommand(kl::CMD_SET);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->get(kl::SYS_USER, ""), "root");
  EXPECT_TRUE(loader.logs("see: klctl rights explain nobody lab/3 CMD_GET"));
}

TEST_F(RightsScenario, ListedCommandsNeedWhatTheListSaysAndOthersAreRefused) {
  const LoaderProcess loader(std::string(kService) +
                             "commands = { \"0x60001\" = \"read\", \"0x60002\" = \"change\" }\n");
  RawPeer lab = RawPeer::registered(40);
  EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
    return isAnswered(peer, request({40}, 0x60002, 8), kl::ERROR_NOTALLOWED, "lacks the right change") &&
           isAnswered(peer, request({40}, 0x60003, 8), kl::ERROR_NOTALLOWED,
                      "sends a command that is not listed there") &&
           isAnswered(peer, request({40}, kl::CMD_SETOBJ, 8), kl::ERROR_NOTALLOWED,
                      "lacks the right change") &&
           peer.send(request({40}, 0x60001, 8)) && peer.send(request({40}, kl::CMD_GETALL, 9));
  }));
  for (const unsigned int command : {0x60001u, kl::CMD_GETALL}) {
    const auto got = lab.receiveCommand(command);
    ASSERT_TRUE(got) << command;
    EXPECT_EQ(got->get(kl::SYS_POLICY, 0), 64u);
    EXPECT_EQ(got->get(kl::SYS_USER, ""), "nobody");
  }
  RawPeer root = RawPeer::registered();
  ASSERT_TRUE(root.send(request({40}, 0x60003, 9)));
  EXPECT_TRUE(lab.receiveCommand(0x60003));
}

TEST_F(RightsScenario, AnOrdinaryUserGetsNoIdThatItAsksFor) {
  const LoaderProcess loader;
  for (const unsigned int id : {17u, 24u, 500u, 0x10000u, 0x12345u})
    EXPECT_TRUE(holdsForNobody([id](RawPeer&) {
      RawPeer second;
      return second.connect() && second.registerAs(id) == 0 && second.isDisconnected();
    })) << id;
  EXPECT_TRUE(loader.logs("asks for the id 17, which nobody is configured for"));
  EXPECT_TRUE(loader.logs("asks for the id 65536, which is for the loader to pick"));
}

TEST_F(GatewayScenario, ItsRequestsHaveTheRightsOfTheUserWhomTheyName) {
  EXPECT_TRUE(holdsForNobody(
      [](RawPeer& web) {
        return web.send(inNameOf("daemon", request({40, 3}, kl::CMD_GET, 1))) &&
               web.send(inNameOf("sys", request({40, 3}, kl::CMD_GET, 2))) &&
               web.send(request({40, 3}, kl::CMD_GET, 3));
      },
      kGateway));
  using Asker = std::pair<std::string, unsigned int>;
  EXPECT_EQ(whoAsks(kl::CMD_GET), Asker("daemon", kl::RIGHT_READ | kl::RIGHT_CHANGE));
  EXPECT_EQ(whoAsks(kl::CMD_GET), Asker("sys", kl::RIGHT_READ | kl::RIGHT_CONTROL)) << "of the group";
  EXPECT_EQ(whoAsks(kl::CMD_GET), Asker("nobody", kl::RIGHT_READ)) << "it names nobody";
}

TEST_F(GatewayScenario, ItMayGiveItsUsersLessThanTheyHaveAndNeverMore) {
  EXPECT_TRUE(holdsForNobody(
      [](RawPeer& web) {
        const kl::message get = inNameOf("daemon", request({40, 3}, kl::CMD_GET, 1));
        const kl::message stop = inNameOf("sys", order(kl::SVC_STOP, 999));
        return web.send(withBits(kl::RIGHT_CHANGE | kl::RIGHT_CONTROL, get)) &&
               web.send(withBits(0xffffffff, get)) && web.send(withBits(0, get)) &&
               isAnswered(web, withBits(kl::RIGHT_READ, stop), kl::ERROR_NOTALLOWED,
                          "lacks the right control") &&
               isAnswered(web, withBits(0xffffffff, stop), kl::ERROR_UNKNOWNID);  // it is allowed
      },
      kGateway));
  EXPECT_TRUE(
      loader_.logs("CMD_SETOBJ to loader in the name of sys, limited to read is not allowed: lacks the right "
                   "control; see: klctl rights explain sys loader CMD_SETOBJ"));
  for (const unsigned int bits : {kl::RIGHT_CHANGE, kl::RIGHT_READ | kl::RIGHT_CHANGE, 0u})
    EXPECT_EQ(whoAsks(kl::CMD_GET).second, bits);
}

TEST_F(GatewayScenario, ItSpeaksForNobodyElseAndNeverForThePowerful) {
  EXPECT_TRUE(holdsForNobody(
      [](RawPeer& web) {
        for (const char* user : {"root", "man", "nobody", "", "nosuchuser"})
          for (const Ids& to : {Ids{40, 3}, Ids{kl::SERVICE_LOADER}})
            if (!isAnswered(web, inNameOf(user, request(to, kl::CMD_GETALL, 4)), kl::ERROR_NOTALLOWED,
                            "names a user for whom it does not speak"))
              return false;
        return isAnswered(web, inNameOf("games", request({40, 3}, kl::CMD_GETALL, 5)), kl::ERROR_NOTALLOWED,
                          "names a user for whom it does not speak") &&  // who may do everything there
               isAnswered(web, inNameOf("bin", request({40, 3}, kl::CMD_GETALL, 6)), kl::ERROR_NOTALLOWED,
                          "has no rights there") &&
               web.send(inNameOf("games", request({kl::SERVICE_LOADER}, kl::CMD_GETALL, 7))) &&
               web.receiveReply(7) && web.send(request({40, 3}, kl::CMD_SET, 8));
      },
      kGateway));
  const auto first = lab_.receive();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->get(kl::SYS_CMD, 0), kl::CMD_SET) << "nothing came before it";
  EXPECT_TRUE(
      loader_.logs("CMD_GETALL to lab/3 is not allowed: names a user for whom it does not speak; see: the "
                   "key speaks_for of web"));
}

TEST_F(GatewayScenario, ItsWordThatSomebodyBehindItHasEndedIsAlwaysObeyed) {
  EXPECT_TRUE(holdsForNobody(
      [](RawPeer& web) {
        kl::message end = notification({40, 3}, {8});
        end.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED);
        return web.send(withBits(0, inNameOf("root", end)));
      },
      kGateway));
  const auto got = lab_.receiveCommand(kl::CMD_DISCONNECTED);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->get(kl::SYS_FROM, {}), (Ids{kGateway, 8}));
  EXPECT_FALSE(got->has(kl::SYS_USER));
  EXPECT_FALSE(got->has(kl::SYS_POLICY));
}

TEST_F(GatewayScenario, TheWordOfOneThatIsNoGatewayHasItsRights) {
  EXPECT_TRUE(holdsForNobody([](RawPeer& peer) {
    kl::message end = notification({40, 3}, {8});
    end.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED);
    return peer.send(end);
  }));
  const auto got = lab_.receiveCommand(kl::CMD_DISCONNECTED);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->get(kl::SYS_USER, ""), "nobody");
  EXPECT_EQ(got->get(kl::SYS_POLICY, 0), kl::RIGHT_READ);
}

TEST_F(RightsScenario, ANotificationOfRootArrivesAsItWasSent) {
  const LoaderProcess loader;
  RawPeer teller = RawPeer::registered(500);
  RawPeer subscriber = RawPeer::registered(501);
  kl::message wish = notification({500, 3}, {7});
  wish.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  ASSERT_TRUE(subscriber.send(wish));
  ASSERT_TRUE(teller.receiveCommand(kl::CMD_SUBSCRIBE));
  kl::message limited = notification({501, 7}, {3});
  limited.insert(kl::SYS_USER, "somebody");
  limited.insert(kl::SYS_POLICY, 64);
  ASSERT_TRUE(teller.send(notification({501, 7}, {3})) && teller.send(limited));
  ASSERT_TRUE(teller.send(notification({501, 8}, {3})));
  const auto plain = subscriber.receive();
  const auto named = subscriber.receive();
  const auto strange = subscriber.receive();
  ASSERT_TRUE(plain && named && strange);
  EXPECT_FALSE(plain->has(kl::SYS_USER) || plain->has(kl::SYS_POLICY));
  EXPECT_EQ(named->get(kl::SYS_USER, ""), "somebody");
  EXPECT_EQ(named->get(kl::SYS_POLICY, 0), 64u);
  EXPECT_EQ(strange->get(kl::SYS_USER, ""), "root") << "nobody has subscribed to it";
}

}  // namespace
