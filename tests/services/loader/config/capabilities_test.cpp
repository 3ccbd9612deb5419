#include "services/loader/config/capabilities.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "services/loader/config/configuration.h"
#include "tests/support/process/child.h"

namespace {

using common::Mistakes;

std::optional<loader::Capabilities> capabilitiesIn(const std::string& line, std::string& mistake,
                                                   std::string& warning) {
  Mistakes mistakes;
  const loader::Configuration configuration = loader::parseConfiguration(
      "[[service]]\nname = \"x\"\nid = 3\ncommand = [\"/bin/x\"]\n" + line, "f", mistakes);
  if (!mistakes.empty()) mistake = mistakes.front().describe();
  if (!configuration.warnings.empty()) warning = configuration.warnings.front().describe();
  return configuration.services.empty() ? std::nullopt : configuration.services[0].limits.capabilities;
}

std::optional<loader::Capabilities> capabilitiesIn(const std::string& line) {
  std::string mistake, warning;
  const auto set = capabilitiesIn(line, mistake, warning);
  EXPECT_EQ(mistake, "");
  return set;
}

std::string mistakeIn(const std::string& line) {
  std::string mistake, warning;
  (void)capabilitiesIn(line, mistake, warning);
  return mistake;
}

TEST(CapabilityNames, EachHasTheNumberThatTheKernelKnows) {
  EXPECT_EQ(capabilitiesIn("capabilities = [\"CAP_CHOWN\"]"), 1u);
  EXPECT_EQ(capabilitiesIn("capabilities = [\"CAP_NET_BIND_SERVICE\", \"CAP_NET_ADMIN\"]"),
            1u << 10 | 1u << 12);
  EXPECT_EQ(capabilitiesIn("capabilities = [\"CAP_SETFCAP\"]"), 1u << 31);
  EXPECT_EQ(capabilitiesIn("capabilities = [\"CAP_CHECKPOINT_RESTORE\"]"), std::uint64_t{1} << 40);
}

TEST(CapabilityNames, AnEmptyListIsNotAMissingOne) {
  EXPECT_EQ(capabilitiesIn("capabilities = []"), 0u);
  EXPECT_FALSE(capabilitiesIn(""));
}

TEST(CapabilityNames, WhatIsNoneIsAMistakeInItsLine) {
  for (const char* name : {"NET_ADMIN", "CAP_", "cap_chown", "CAP_CHOWNS", ""})
    EXPECT_EQ(
        mistakeIn(std::string("capabilities = [\"") + name + "\"]"),
        std::string("f:5: [service] capabilities: there is no capability of the name \"") + name + "\"");
  EXPECT_EQ(
      mistakeIn("capabilities = \"all\""),
      "f:5: [service] capabilities: expected a list of names of capabilities, such as \"CAP_NET_ADMIN\", "
      "found \"all\"");
}

TEST(CapabilityNames, WhatOnlyRootMayGiveIsTold) {
  const auto result = kl::test::runInChild([] {
    if (::geteuid() == 0 && ::setuid(54322) != 0) ::_exit(2);
    std::string mistake, none, some;
    (void)capabilitiesIn("capabilities = []", mistake, none);
    (void)capabilitiesIn("capabilities = [\"CAP_KILL\"]", mistake, some);
    ::_exit(none.empty() && some == "f:5: [service] capabilities: only root may give any" ? 0 : 1);
  });
  EXPECT_EQ(result.exitStatus, 0) << result.err;
}

}  // namespace
