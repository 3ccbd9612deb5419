#include "services/loader/config/environment.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace loader {
namespace {

// The variables of this process are others for as long as it lives.
class OtherVariables {
 public:
  explicit OtherVariables(std::vector<std::string> variables)
      : texts_(std::move(variables)), before_(::environ) {
    for (std::string& text : texts_) pointers_.push_back(text.data());
    pointers_.push_back(nullptr);
    ::environ = pointers_.data();
  }
  ~OtherVariables() { ::environ = before_; }
  OtherVariables(const OtherVariables&) = delete;
  OtherVariables& operator=(const OtherVariables&) = delete;

 private:
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
  char** before_;
};

ServiceConfiguration serviceOf(const std::string& login, const std::string& home) {
  ServiceConfiguration service;
  service.login = login;
  service.home = home;
  return service;
}

const Environment kNobodys = {{"HOME", "/nowhere"}, {"LOGNAME", "nobody"}, {"USER", "nobody"}};

Environment with(Environment more) {
  more.insert(kNobodys.begin(), kNobodys.end());
  return more;
}

TEST(EnvironmentTest, ItsUserIsWhoItRunsAs) {
  const OtherVariables variables({"HOME=/root", "USER=root", "LOGNAME=root", "PATH=/bin"});
  EXPECT_EQ(environmentOf(serviceOf("nobody", "/nowhere")), with({{"PATH", "/bin"}}));
}

TEST(EnvironmentTest, WhatIsTheLoadersBusinessDoesNotPass) {
  const OtherVariables variables({"PATH=/bin", "NOTIFY_SOCKET=/x", "WATCHDOG_USEC=1", "SSH_AUTH_SOCK=/y",
                                  "TOKEN=secret", "PWD=/", "TERM=dumb", "XKL_A=1", "PATH_A=1", "KL=1",
                                  "nothing"});
  EXPECT_EQ(environmentOf(serviceOf("nobody", "/nowhere")), with({{"PATH", "/bin"}}));
}

TEST(EnvironmentTest, TimeLanguageAndTheSystemsOwnPass) {
  const Environment passing = {{"PATH", "/bin"}, {"TZ", "UTC0"},     {"LANG", "C"},    {"LC_ALL", "C=D"},
                               {"KL_A", ""},     {"LD_PRELOAD", ""}, {"KL_ROOT", "/r"}};
  std::vector<std::string> texts;
  for (const auto& [name, value] : passing) texts.push_back(name + "=" + value);
  const OtherVariables variables(texts);
  EXPECT_EQ(environmentOf(serviceOf("nobody", "/nowhere")), with(passing));
}

TEST(EnvironmentTest, WithoutAPathItHasTheUsualOne) {
  const OtherVariables variables({});
  EXPECT_EQ(environmentOf(serviceOf("nobody", "/nowhere")),
            with({{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}}));
}

TEST(EnvironmentTest, WhatIsConfiguredCountsFirst) {
  const OtherVariables variables({"PATH=/bin", "TZ=UTC0"});
  ServiceConfiguration service = serviceOf("nobody", "/nowhere");
  service.environment = {{"HOME", "/h"}, {"TZ", "CET"}, {"A", "b"}};
  EXPECT_EQ(environmentOf(service), (Environment{{"A", "b"},
                                                 {"HOME", "/h"},
                                                 {"LOGNAME", "nobody"},
                                                 {"PATH", "/bin"},
                                                 {"TZ", "CET"},
                                                 {"USER", "nobody"}}));
}

TEST(EnvironmentTest, UserAndFolderAreReadWithTheConfiguration) {
  common::Mistakes mistakes;
  const Configuration configuration = parseConfiguration(
      "[[service]]\nname = \"x\"\nid = 3\ncommand = [\"x\"]\nuser = \"nobody\"\n"
      "[[service]]\nname = \"y\"\nid = 4\ncommand = [\"y\"]\n",
      "f", mistakes);
  ASSERT_TRUE(mistakes.empty());
  const Users users;
  const std::string own = users.nameOf(::geteuid());
  EXPECT_EQ(configuration.services[0].login, "nobody");
  EXPECT_EQ(configuration.services[0].home, users.homeOf("nobody"));
  EXPECT_EQ(configuration.services[1].login, own);
  EXPECT_EQ(configuration.services[1].home, users.homeOf(own));
}

}  // namespace
}  // namespace loader
