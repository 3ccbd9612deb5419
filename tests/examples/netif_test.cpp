#include "netif.kl.h"

#include <gtest/gtest.h>

#include <csignal>

#include "tests/examples/netif_service.h"
#include "tests/examples/own_network.h"

namespace {

// A request that is open when netif ends.
class KilledNetif : public NetifService {
 protected:
  // Kills netif while a request to it is open, and gives back how the request ended.
  kl::message askAndKill() {
    EXPECT_FALSE(kl::isError(ask(kl::CMD_NOOP)));
    const pid_t process = pid();
    EXPECT_EQ(::kill(process, SIGSTOP), 0);  // it takes the request and does not answer
    kl::message m = to(netif::SERVICE);
    m.insert(kl::SYS_CMD, kl::CMD_GETCOUNT);
    client_.postMessage(m, this, kl::bind<KilledNetif, &KilledNetif::onReply>(), {}, kPatienceTicks);
    EXPECT_FALSE(kl::isError(ask(kl::CMD_NOOP, to(kl::SERVICE_LOADER))));  // the loader has the request
    EXPECT_EQ(::kill(process, SIGKILL), 0);
    client_.run();
    return late_;
  }

  void onReply(const kl::message& reply, const kl::message&) {
    late_ = reply;
    client_.shutdown();
  }

  kl::message late_;
};

}  // namespace

TEST_F(NetifService, ShowsEveryInterfaceAsTheKernelHasIt) {
  const kl::message reply = ask(kl::CMD_GETALL);
  EXPECT_FALSE(reply.has(kl::STD_GETALLID));
  EXPECT_EQ(idsOf(reply), kernelIds());
  for (const kl::message object : reply.get(kl::STD_OBJS, {})) {
    const std::string name = object.get(netif::NAME, "");
    EXPECT_EQ(object.get(kl::STD_ID, 0), ::if_nametoindex(name.c_str()));
    EXPECT_EQ(object.get(netif::MTU, 0), kernel::sysNumber(name, "mtu")) << name;
    EXPECT_EQ(object.get(netif::UP, false), (kernel::sysNumber(name, "flags") & IFF_UP) != 0) << name;
    EXPECT_EQ(kernel::hardwareText(object.get(netif::HWADDR, {})), kernel::sysText(name, "address")) << name;
    EXPECT_EQ(kernel::textOf(object.get(netif::ADDRESSES, {})), kernel::addresses(name)) << name;
    EXPECT_LE(object.get(netif::RX_BYTES, ~0ull), kernel::sysNumber(name, "statistics/rx_bytes")) << name;
    EXPECT_LE(object.get(netif::TX_PACKETS, ~0ull), kernel::sysNumber(name, "statistics/tx_packets")) << name;
    EXPECT_TRUE(object.has(netif::TX_BYTES));
    EXPECT_TRUE(object.has(netif::RX_PACKETS));
    EXPECT_FALSE(object.has(kl::STD_DESCR));
  }
}

TEST_F(NetifService, GivesAsManyAsAskedForAndNamesTheNext) {
  std::vector<unsigned int> ids;
  for (unsigned int start = kl::BADID;;) {
    const kl::message reply = getAll(start, 1);
    ASSERT_EQ(idsOf(reply).size(), 1u);
    ids.push_back(idsOf(reply).front());
    if (!reply.has(kl::STD_GETALLID)) break;
    start = reply.get(kl::STD_GETALLID, 0);
  }
  EXPECT_EQ(ids, kernelIds());
}

TEST_F(NetifService, AStartThatIsNoInterfaceMeansTheNextThatIs) {
  EXPECT_EQ(idsOf(getAll(0, 1)).at(0), kernelIds().front());
  const kl::message beyond = getAll(kernelIds().back() + 1, 0);
  EXPECT_TRUE(idsOf(beyond).empty());
  EXPECT_TRUE(beyond.has(kl::STD_OBJS));
  EXPECT_FALSE(beyond.has(kl::STD_GETALLID));
}

TEST_F(NetifService, CountsItsInterfaces) {
  EXPECT_EQ(ask(kl::CMD_GETCOUNT).get(kl::STD_GETALLNO, 0), kernelIds().size());
}

TEST_F(NetifService, ShowsOneInterface) {
  const kl::message reply = askFor(kl::CMD_GETOBJ, lo_);
  EXPECT_EQ(reply.get(kl::STD_ID, 0), lo_);
  EXPECT_EQ(reply.get(netif::NAME, ""), "lo");
}

TEST_F(NetifService, AnInterfaceThatIsNotThereIsUnknown) {
  EXPECT_EQ(errorOf(askFor(kl::CMD_GETOBJ, 0xfffffff0)), kl::ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(describe(0xfffffff0, "x")), kl::ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(ask(kl::CMD_GETOBJ)), kl::ERROR_UNKNOWNID);  // no id at all
}

TEST_F(NetifService, KeepsADescription) {
  EXPECT_FALSE(kl::isError(describe(lo_, "to itself")));
  EXPECT_EQ(askFor(kl::CMD_GETOBJ, lo_).get(kl::STD_DESCR, ""), "to itself");
  EXPECT_FALSE(kl::isError(describe(lo_, std::string(255, 'x'))));
  EXPECT_EQ(askFor(kl::CMD_GETOBJ, lo_).get(kl::STD_DESCR, ""), std::string(255, 'x'));
  EXPECT_FALSE(kl::isError(describe(lo_, "")));
  EXPECT_FALSE(askFor(kl::CMD_GETOBJ, lo_).has(kl::STD_DESCR));
}

TEST_F(NetifService, ADescriptionThatIsMissingOrTooLongIsRefused) {
  EXPECT_EQ(errorOf(askFor(kl::CMD_SETOBJ, lo_)), kl::ERROR_MISSING);
  EXPECT_EQ(errorOf(describe(lo_, std::string(256, 'x'))), kl::ERROR_TOOBIG);
  EXPECT_FALSE(askFor(kl::CMD_GETOBJ, lo_).has(kl::STD_DESCR));
}

TEST_F(NetifService, WhoMayOnlyReadCannotDescribe) {
  kl::message m = to(netif::SERVICE);
  m.insert(kl::SYS_POLICY, 64);
  m.insert(kl::STD_ID, lo_);
  m.insert(kl::STD_DESCR, "x");
  EXPECT_EQ(errorOf(ask(kl::CMD_SETOBJ, m)), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(errorOf(ask(kl::CMD_GETOBJ, m)), kl::ERROR_OK);
}

TEST_F(NetifService, WhatItDoesNotOfferIsNotImplemented) {
  EXPECT_EQ(errorOf(ask(kl::CMD_GET)), kl::ERROR_NOTIMP);
  EXPECT_EQ(errorOf(askFor(kl::CMD_REMOVEOBJ, lo_)), kl::ERROR_NOTIMP);
  EXPECT_EQ(errorOf(ask(0x4711)), kl::ERROR_NOTIMP);
}

TEST_F(KilledNetif, InTheMiddleOfARequestItsAskerIsTold) {
  EXPECT_EQ(errorOf(askAndKill()), kl::ERROR_BRKPATH);
}

TEST_F(NetifService, LeavesWhenItIsToldAndComesBackWithItsDescription) {
  EXPECT_FALSE(kl::isError(describe(lo_, "to itself")));
  const pid_t before = pid();
  kl::message leave = to(kl::SERVICE_LOADER);
  leave.insert(kl::STD_ID, netif::SERVICE);
  leave.insert(kl::SVC_ACTION, kl::SVC_LEAVE);
  EXPECT_FALSE(kl::isError(ask(kl::CMD_SETOBJ, leave)));
  EXPECT_EQ(pid(), 0);
  EXPECT_EQ(askFor(kl::CMD_GETOBJ, lo_).get(kl::STD_DESCR, ""), "to itself");
  EXPECT_NE(pid(), before);
}

TEST_F(NetifService, AfterACrashItAnswersAgainAndHasForgottenItsDescriptions) {
  EXPECT_FALSE(kl::isError(describe(lo_, "to itself")));
  ASSERT_EQ(::kill(pid(), SIGKILL), 0);
  const unsigned int deadline = kl::getJiffies() + kPatienceTicks;
  kl::message reply;
  do reply = askFor(kl::CMD_GETOBJ, lo_);
  while (kl::isError(reply) && kl::getJiffies() < deadline);
  EXPECT_EQ(reply.get(netif::NAME, ""), "lo");
  EXPECT_FALSE(reply.has(kl::STD_DESCR));
}

namespace {

// netif where there are two hundred interfaces, one of which has six hundred addresses: a network namespace
// of its own.
class CrowdedNetif : public NetifService {
 protected:
  CrowdedNetif()
      : NetifService(
            "\"/usr/bin/unshare\", \"--map-root-user\", \"--net\", \"/bin/sh\", \"-c\", "
            "\"{ for i in $(seq 1 100); do echo link add a$i type veth peer name b$i; done; echo link set lo "
            "up; "
            "for i in $(seq 1 600); do echo addr add fd00::$i/128 dev lo; done; } | ip -batch - >&2; "
            "exec " KL_BIN_DIR "/netif\"") {}

  void SetUp() override {
    if (!network::isAllowed()) GTEST_SKIP() << "the kernel refuses a network namespace";
  }
};

}  // namespace

TEST_F(CrowdedNetif, RepliesStayFarBelowTheLargestFrame) {
  std::vector<unsigned int> ids;
  unsigned int chunks = 0;
  for (unsigned int start = kl::BADID;;) {
    const kl::message reply = getAll(start, 0);
    std::vector<unsigned char> bytes;
    reply.flatten(bytes);
    EXPECT_LT(bytes.size(), 32768u);
    ++chunks;
    for (const unsigned int id : idsOf(reply)) ids.push_back(id);
    if (!reply.has(kl::STD_GETALLID)) break;
    start = reply.get(kl::STD_GETALLID, 0);
    ASSERT_LT(ids.back(), start);
  }
  EXPECT_GE(ids.size(), 201u);
  EXPECT_EQ(ids.size(), ask(kl::CMD_GETCOUNT).get(kl::STD_GETALLNO, 0));
  EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
  EXPECT_GT(chunks, 1u);
}

TEST_F(CrowdedNetif, AnInterfaceShowsAtMostFiveHundredAndTwelveAddresses) {
  const kl::message lo = askFor(kl::CMD_GETOBJ, 1);
  EXPECT_EQ(lo.get(netif::NAME, ""), "lo");
  EXPECT_EQ(lo.get(netif::ADDRESSES, {}).size(), 512u);
}
