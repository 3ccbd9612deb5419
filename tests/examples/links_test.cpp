#include "examples/links.h"

#include <gtest/gtest.h>

#include "tests/examples/kernel_view.h"

TEST(Links, AreAllInterfacesInTheOrderOfTheirIndexes) {
  std::map<unsigned int, std::string> names;
  for (const auto& [index, link] : readLinks()) names[index] = link.name;
  EXPECT_EQ(names, kernel::names());
  EXPECT_FALSE(names.empty());
}

TEST(Links, HaveWhatTheKernelSaysElsewhere) {
  for (const auto& [index, link] : readLinks()) {
    EXPECT_EQ(link.mtu, kernel::sysNumber(link.name, "mtu")) << link.name;
    EXPECT_EQ(link.up, (kernel::sysNumber(link.name, "flags") & IFF_UP) != 0) << link.name;
    EXPECT_EQ(kernel::hardwareText(link.hardwareAddress), kernel::sysText(link.name, "address")) << link.name;
    EXPECT_EQ(kernel::textOf(link.addresses), kernel::addresses(link.name)) << link.name;
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
  for (const auto& [index, link] : readLinks()) {
    const std::vector<unsigned long long> now = {link.rxBytes, link.txBytes, link.rxPackets, link.txPackets};
    const auto after = counters(link.name);
    for (std::size_t i = 0; i < now.size(); ++i) {
      EXPECT_GE(now[i], before.at(link.name)[i]) << link.name << " counter " << i;
      EXPECT_LE(now[i], after[i]) << link.name << " counter " << i;
    }
  }
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
