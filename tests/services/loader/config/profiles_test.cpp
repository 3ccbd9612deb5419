#include "services/loader/config/profiles.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <set>
#include <string>

#include "services/loader/config/configuration.h"

namespace loader {
namespace {

Profile profileIn(const std::string& lines, std::string& mistake) {
  common::Mistakes mistakes;
  const Configuration configuration = parseConfiguration(
      "[[service]]\nname = \"x\"\nid = 3\ncommand = [\"/bin/x\"]\n" + lines, "f", mistakes);
  mistake = mistakes.empty() ? "" : mistakes.front().describe();
  return configuration.services.empty() ? Profile::kNone : configuration.services[0].limits.profile;
}

Profile profileIn(const std::string& lines) {
  std::string mistake;
  const Profile profile = profileIn(lines, mistake);
  EXPECT_EQ(mistake, "");
  return profile;
}

TEST(ProfilesTest, EachHasItsName) {
  EXPECT_EQ(profileIn(""), Profile::kNone);
  for (const Profile profile : {Profile::kNone, Profile::kPlain, Profile::kQuiet, Profile::kNetwork})
    EXPECT_EQ(profileIn("profile = \"" + std::string(nameOf(profile)) + "\""), profile);
}

TEST(ProfilesTest, WhatIsNoneIsAMistakeInItsLine) {
  std::string mistake;
  (void)profileIn("profile = \"strict\"", mistake);
  EXPECT_EQ(
      mistake,
      "f:5: [service] profile: expected \"none\" or \"plain\" or \"quiet\" or \"network\", found \"strict\"");
}

TEST(ProfilesTest, WhoMayGainPrivilegesHasNone) {
  std::string mistake;
  (void)profileIn("profile = \"plain\"\nnew_privileges = true", mistake);
  EXPECT_EQ(mistake, "f:5: [service] profile: expected no new_privileges: a profile lets nobody gain any");
}

TEST(ProfilesTest, ATighterOneRefusesMore) {
  EXPECT_FALSE(isRefused("mount", Profile::kNone));
  for (const Profile profile : {Profile::kPlain, Profile::kQuiet, Profile::kNetwork}) {
    EXPECT_TRUE(isRefused("mount", profile));
    EXPECT_FALSE(isRefused("write", profile));
    EXPECT_EQ(isRefused("sethostname", profile), profile != Profile::kPlain);
  }
}

TEST(ProfilesTest, SocketsAreLocalOnesOrThoseOfTheNetwork) {
  const auto allows = [](Profile profile, int family) {
    const auto families = socketFamilies(profile);
    return std::ranges::find(families, family) != families.end();
  };
  EXPECT_TRUE(socketFamilies(Profile::kPlain).empty());
  EXPECT_TRUE(allows(Profile::kQuiet, AF_UNIX));
  EXPECT_FALSE(allows(Profile::kQuiet, AF_INET));
  for (const int family : {AF_UNIX, AF_INET, AF_INET6, AF_NETLINK})
    EXPECT_TRUE(allows(Profile::kNetwork, family));
}

TEST(ProfilesTest, ACallIsRefusedForOneReason) {
  std::set<std::string_view> calls;
  for (const CallGroup& group : callGroups())
    for (const std::string_view call : group.calls) EXPECT_TRUE(calls.insert(call).second) << call;
}

}  // namespace
}  // namespace loader
