#include "examples/links.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/examples/kernel_view.h"
#include "tests/examples/own_network.h"
#include "tests/support/process/child_process.h"

namespace {

Links allLinks() {
  const auto links = readLinks();
  EXPECT_TRUE(links);
  return links.value_or(Links());
}

std::set<std::string> addressesOf(const Link& link) {
  std::set<std::string> result;
  for (const Address& address : link.addresses)
    if (!address.isIPv4()) result.insert(kernel::addressText(&address.own));
  return result;
}

// Makes six hundred addresses, whose reading takes a while, and one that comes and goes meanwhile.
constexpr char kRestless[] =
    "{ echo link set lo up; for i in $(seq 1 600); do echo addr add fd00::$i/128 dev lo; done; "
    "for i in $(seq 1 5000); do echo addr add 10.1.1.1/32 dev lo; echo addr del 10.1.1.1/32 dev lo; done; } "
    "| "
    "ip -batch -";

}  // namespace

TEST(Links, AreAllInterfacesInTheOrderOfTheirIndexes) {
  std::map<unsigned int, std::string> names;
  for (const auto& [index, link] : allLinks()) names[index] = link.name;
  EXPECT_EQ(names, kernel::names());
  EXPECT_FALSE(names.empty());
}

TEST(Links, HaveWhatTheKernelSaysElsewhere) {
  for (const auto& [index, link] : allLinks()) {
    EXPECT_EQ(link.running, (kernel::flags(link.name) & IFF_RUNNING) != 0) << link.name;
    EXPECT_EQ(link.mtu, kernel::sysNumber(link.name, "mtu")) << link.name;
    EXPECT_EQ(link.up, (kernel::sysNumber(link.name, "flags") & IFF_UP) != 0) << link.name;
    EXPECT_EQ(kernel::hardwareText(link.hardwareAddress), kernel::sysText(link.name, "address")) << link.name;
    EXPECT_EQ(addressesOf(link), kernel::addresses(link.name)) << link.name;
  }
}

TEST(Links, CountersLieBetweenAReadingBeforeAndOneAfter) {
  const auto counters = [](const std::string& name) {
    return std::vector<unsigned long long>{
        kernel::sysNumber(name, "statistics/rx_bytes"), kernel::sysNumber(name, "statistics/tx_bytes"),
        kernel::sysNumber(name, "statistics/rx_packets"), kernel::sysNumber(name, "statistics/tx_packets")};
  };
  std::map<std::string, std::vector<unsigned long long>> before;
  for (const auto& [index, name] : kernel::names()) before[name] = counters(name);
  for (const auto& [index, link] : allLinks()) {
    const std::vector<unsigned long long> now = {link.counters.rxBytes, link.counters.txBytes,
                                                 link.counters.rxPackets, link.counters.txPackets};
    const auto after = counters(link.name);
    for (std::size_t i = 0; i < now.size(); ++i) {
      EXPECT_GE(now[i], before.at(link.name)[i]) << link.name << " counter " << i;
      EXPECT_LE(now[i], after[i]) << link.name << " counter " << i;
    }
  }
}

TEST(Links, OfATableThatNeverStandsStillAreThoseThatWereLastSeen) {
  if (!network::enter()) GTEST_SKIP() << "the kernel refuses a network namespace";
  kl::test::ChildProcess changer([] {
    ::_exit(kl::test::runProgram({"/bin/sh", "-c", kRestless}).exitStatus);
  });
  while (!changer.hasEnded()) {
    const auto links = readLinks();
    ASSERT_TRUE(links && links->contains(1)) << "lo is always there";
  }
  EXPECT_EQ(changer.waitForEnd(), 0) << "it changed addresses to its end";
}

TEST(Links, ReadingLeavesNoDescriptorOpen) {
  (void)readLinks();
  const int before = ::dup(0);
  ::close(before);
  for (int i = 0; i < 10; ++i) (void)readLinks();
  const int after = ::dup(0);
  ::close(after);
  EXPECT_EQ(after, before);
}

TEST(Links, LookAlikeWhateverTheirCountersSay) {
  const Link link = allLinks().begin()->second;
  Link other = link;
  other.counters.rxBytes += 1000;
  EXPECT_TRUE(link.looksLike(other));
  const auto differs = [&link](auto change) {
    Link changed = link;
    change(changed);
    return !link.looksLike(changed) && !changed.looksLike(link);
  };
  EXPECT_TRUE(differs([](Link& l) { l.name += "x"; }));
  EXPECT_TRUE(differs([](Link& l) { l.hardwareAddress.push_back(1); }));
  EXPECT_TRUE(differs([](Link& l) { l.addresses.insert({{{1}}, {{2}}, 64}); }));
  EXPECT_TRUE(differs([](Link& l) { l.mtu += 1; }));
  EXPECT_TRUE(differs([](Link& l) { l.up = !l.up; }));
  EXPECT_TRUE(differs([](Link& l) { l.running = !l.running; }));
}
