#include "examples/link_monitor.h"

#include <gtest/gtest.h>
#include <poll.h>

#include "tests/examples/own_network.h"

namespace {

constexpr char kRefused[] = "the kernel refuses a network namespace";

// A monitor in a network namespace in which the test makes its interfaces.
class Monitor : public testing::Test {
 protected:
  void SetUp() override {
    if (!network::enter()) GTEST_SKIP() << kRefused;
    monitor_.emplace();
  }

  unsigned int indexOf(const std::string& name) const {
    for (const auto& [index, link] : monitor_->links())
      if (link.name == name) return index;
    return 0;
  }

  bool hasNews() const {
    pollfd entry{monitor_->fd(), POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0;
  }

  bool hasLostNews() const {
    pollfd entry{monitor_->fd(), POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0 && (entry.revents & POLLERR) != 0;
  }

  // True when it knows what the kernel says now.
  bool isCurrent() const {
    const auto now = readLinks();
    if (!now || now->size() != monitor_->links().size()) return false;
    return std::equal(now->begin(), now->end(), monitor_->links().begin(), [](const auto& a, const auto& b) {
      return a.first == b.first && a.second.looksLike(b.second);
    });
  }

  std::optional<LinkMonitor> monitor_;
};

}  // namespace

TEST_F(Monitor, BeginsWithTheInterfacesThatAreThere) {
  EXPECT_FALSE(monitor_->isStale());
  EXPECT_NE(indexOf("lo"), 0u);
  EXPECT_TRUE(isCurrent());
  EXPECT_FALSE(hasNews());
  EXPECT_TRUE(monitor_->takeNews().empty());
}

TEST_F(Monitor, SeesAnInterfaceComeChangeAndGo) {
  ASSERT_TRUE(network::addLink("made"));
  ASSERT_TRUE(hasNews());
  Links before = monitor_->takeNews();
  const unsigned int index = indexOf("made");
  ASSERT_TRUE(before.contains(index));
  EXPECT_EQ(before[index].name, "");
  EXPECT_FALSE(monitor_->links().at(index).up);

  ASSERT_TRUE(network::ip("link set made up mtu 1400"));
  before = monitor_->takeNews();
  ASSERT_TRUE(before.contains(index));
  EXPECT_FALSE(before[index].up);
  EXPECT_TRUE(monitor_->links().at(index).up);
  EXPECT_EQ(monitor_->links().at(index).mtu, 1400u);

  ASSERT_TRUE(network::ip("link del made"));
  before = monitor_->takeNews();
  ASSERT_TRUE(before.contains(index));
  EXPECT_EQ(before[index].name, "made");
  EXPECT_FALSE(monitor_->links().contains(index));
  EXPECT_TRUE(isCurrent());
}

TEST_F(Monitor, SeesAddressesOfBothKindsComeAndGo) {
  const unsigned int lo = indexOf("lo");
  for (const std::string address : {"fd00::5/64", "10.1.1.1/24"}) {
    ASSERT_TRUE(network::ip("addr add " + address + " dev lo"));
    EXPECT_TRUE(monitor_->takeNews().contains(lo)) << address;
    EXPECT_EQ(monitor_->links().at(lo).addresses.size(), 1u) << address;
    ASSERT_TRUE(network::ip("addr del " + address + " dev lo"));
    EXPECT_TRUE(monitor_->takeNews().contains(lo)) << address;
    EXPECT_TRUE(monitor_->links().at(lo).addresses.empty()) << address;
  }
  EXPECT_TRUE(isCurrent());
}

TEST_F(Monitor, WhatIsTheSameAgainAfterABurstIsNoNews) {
  ASSERT_TRUE(network::ip("link set lo mtu 1400"));
  ASSERT_TRUE(network::ip("link set lo mtu 65536"));
  EXPECT_TRUE(hasNews());
  EXPECT_TRUE(monitor_->takeNews().empty());
}

// The socket holds one message or two; the rest is lost, the going of an interface among them.
TEST_F(Monitor, AfterAnOverrunItKnowsWhatIsThere) {
  ASSERT_TRUE(network::addLink("stays"));
  ASSERT_TRUE(network::addLink("goes"));
  (void)monitor_->takeNews();
  const unsigned int goes = indexOf("goes");
  const unsigned int stays = indexOf("stays");
  const int smallest = 1;
  ASSERT_EQ(::setsockopt(monitor_->fd(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest), 0);
  ASSERT_TRUE(network::addLink("short"));
  for (const int mtu : {1300, 1301, 1302, 1303}) {
    ASSERT_TRUE(network::ip("link set goes mtu " + std::to_string(mtu)));
  }
  ASSERT_TRUE(network::ip("link del short"));
  ASSERT_TRUE(network::ip("link del goes"));
  ASSERT_TRUE(network::ip("link set stays mtu 1310"));
  ASSERT_TRUE(hasLostNews());
  const Links before = monitor_->takeNews();
  EXPECT_FALSE(monitor_->isStale());
  EXPECT_TRUE(before.contains(goes));
  EXPECT_TRUE(before.contains(stays));
  EXPECT_EQ(indexOf("short"), 0u);
  EXPECT_EQ(monitor_->links().at(stays).mtu, 1310u);
  EXPECT_TRUE(isCurrent());
}
