// netif leaves and comes back, with a loader that the test plays.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <optional>
#include <set>

#include "kl/conventions.h"
#include "kl/services.h"
#include "netif.kl.h"
#include "tests/examples/kernel_view.h"
#include "tests/support/doubles/loader_double.h"
#include "tests/support/process/child.h"
#include "tests/support/process/child_process.h"

namespace {

using kl::message;

constexpr unsigned int kAsker = 9;
constexpr unsigned int kGone = 4000000;  // the index of no interface

// One life of the process netif, from its registration to its end.
class Life {
 public:
  explicit Life(const message& data = {}) {
    message ready;
    std::vector<unsigned char> bytes;
    data.flatten(bytes);
    if (data != message()) ready.insert(kl::READY_DATA, message::flat_message(bytes));
    loader_.sendReady(ready);
    netif_.emplace([this] {
      (void)::fcntl(loader_.fd(), F_SETFD, FD_CLOEXEC);
      kl::test::become({KL_BIN_DIR "/netif"});
    });
    EXPECT_TRUE(nextCtrl(kl::CTRL_HELLO).has(kl::REGISTRATION_VALUES));
    nextCtrl(kl::CTRL_RUNNING);
    EXPECT_NE(nextCtrl(kl::CTRL_LEAVE_VALUE).get(kl::SYS_CTRL_ARG, 0), 0u);
  }
  ~Life() {
    loader_.close();
    (void)netif_->waitForEnd();
  }
  Life(const Life&) = delete;
  Life& operator=(const Life&) = delete;

  message ask(unsigned int command, message m) {
    m.insert(kl::SYS_TO, std::vector<unsigned int>());
    m.insert(kl::SYS_FROM, {kAsker});
    m.insert(kl::SYS_CMD, command);
    m.insert(kl::SYS_REQID, 1);
    m.insert(kl::SYS_REPLYEXP, true);
    loader_.send(m);
    for (;;) {
      message reply = loader_.receive();
      if (kl::isReply(reply) || reply == message()) return reply;
    }
  }

  void subscribe() {
    message m;
    m.insert(kl::SYS_TO, std::vector<unsigned int>());
    m.insert(kl::SYS_FROM, {kAsker});
    m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
    m.insert(kl::SYS_NOTIFYCMD, kl::CMD_NOTIFY);
    loader_.send(m);
  }

  message receive() { return loader_.receive(); }

  // Asks it to leave; gives back the data that it leaves with.
  message leave() {
    message m;
    m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
    m.insert(kl::SYS_CTRL, kl::CTRL_LEAVE);
    loader_.send(m);
    message left(nextCtrl(kl::CTRL_LEFT).get(kl::READY_DATA, {}));
    EXPECT_EQ(netif_->waitForEnd(), 0);
    return left;
  }

 private:
  message nextCtrl(unsigned int code) {
    for (;;) {
      message m = loader_.receive();
      if (m == message() || m.get(kl::SYS_CTRL, 0) == code) return m;
    }
  }

  kl::test::LoaderDouble loader_;
  std::optional<kl::test::ChildProcess> netif_;
};

message object(unsigned int id, const std::string& description = "") {
  message m;
  m.insert(kl::STD_ID, id);
  if (!description.empty()) m.insert(kl::STD_DESCR, description);
  return m;
}

const unsigned int kLo = ::if_nametoindex("lo");

message saved(const std::string& description, bool isWatched) {
  Life netif;
  EXPECT_FALSE(kl::isError(netif.ask(kl::CMD_SETOBJ, object(kLo, description))));
  if (isWatched) netif.subscribe();
  return netif.leave();
}

}  // namespace

TEST(NetifLeave, ADescriptionComesBack) {
  Life netif(saved("to itself", false));
  EXPECT_EQ(netif.ask(kl::CMD_GETOBJ, object(kLo)).get(kl::STD_DESCR, ""), "to itself");
}

TEST(NetifLeave, ADescriptionOutlivesASecondLeave) {
  message data;
  {
    Life netif(saved("to itself", false));
    data = netif.leave();
  }
  Life netif(data);
  EXPECT_EQ(netif.ask(kl::CMD_GETOBJ, object(kLo)).get(kl::STD_DESCR, ""), "to itself");
}

TEST(NetifLeave, SubscribersComeBackAndAreToldEverythingAnew) {
  Life netif(saved("to itself", true));
  const message notification = netif.receive();
  EXPECT_EQ(notification.get(kl::SYS_CMD, 0), kl::CMD_NOTIFY);
  EXPECT_EQ(notification.get(kl::SYS_TO, {}), std::vector<unsigned int>{kAsker});
  std::map<unsigned int, std::string> told;
  for (const message one : notification.get(kl::STD_OBJS, {}))
    told[one.get(kl::STD_ID, 0)] = one.get(netif::NAME, "");
  EXPECT_EQ(told, kernel::names());
}

TEST(NetifLeave, SubscribersAreToldWhatHasGoneMeanwhile) {
  // The data that netif left with when it knew one interface more.
  message data = saved("to itself", true);
  constexpr kl::field<std::vector<message::flat_message>> kHandlerData{0xa8000003};
  constexpr kl::field<std::vector<unsigned int>> kKnown{0x88000004};
  message memory(data.get(kHandlerData, {}).at(0));
  std::vector<unsigned int> known = memory.get(kKnown, {});
  EXPECT_EQ(known.size(), kernel::names().size());
  known.push_back(kGone);
  memory.insert(kKnown, known);
  message::flat_message bytes;
  memory.flatten(bytes);
  data.insert(kHandlerData, {bytes});

  Life netif(data);
  const message notification = netif.receive();
  message last;
  for (const message one : notification.get(kl::STD_OBJS, {})) last = one;
  EXPECT_EQ(last.get(kl::STD_ID, 0), kGone);
  EXPECT_TRUE(last.has(kl::STD_DEAD));
}

TEST(NetifLeave, WithoutSubscribersItKeepsNoListOfInterfaces) {
  Life netif;
  message m;
  EXPECT_FALSE(kl::isError(netif.ask(kl::CMD_SETOBJ, object(kLo, "x"))));
  const message data = netif.leave();
  // Clang 14 fails at fields that are made in the calls.
  constexpr kl::field<std::vector<message::flat_message>> subscriptions{0xa8000001};
  constexpr kl::field<std::vector<message::flat_message>> own{0xa8000003};
  constexpr kl::field<std::vector<unsigned int>> interfaces{0x88000004};
  EXPECT_FALSE(data.has(subscriptions));
  const message memory(data.get(own, {}).at(0));
  EXPECT_FALSE(memory.has(interfaces));
}
