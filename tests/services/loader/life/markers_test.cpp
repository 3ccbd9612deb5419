#include "services/loader/life/markers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "services/common/descriptor.h"
#include "services/loader/config/users.h"

namespace {

namespace fs = std::filesystem;
using loader::Configuration;

constexpr uid_t kOtherUser = 12345;

class LoaderMarkers : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(::mkdtemp(folder_), nullptr);
    const std::string probe = at("probe");
    make("probe");
    if (::chown(probe.c_str(), kOtherUser, kOtherUser) != 0)
      GTEST_SKIP() << "needs root, to give a file away";
    ::unlink(probe.c_str());
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::string at(const std::string& name) const { return std::string(folder_) + "/" + name; }
  void make(const std::string& name) const { std::ofstream(at(name)).flush(); }
  void makeFor(uid_t user, const std::string& name) const {
    make(name);
    ASSERT_EQ(::chown(at(name).c_str(), user, user), 0);
  }
  bool isThere(const std::string& name) const { return fs::exists(fs::symlink_status(at(name))); }

  void configure(const std::string& name, const std::vector<std::string>& command,
                 const std::string& user = "") {
    loader::ServiceConfiguration service;
    service.name = name;
    service.command = command;
    service.user = user;
    service.uid = user.empty() ? 0 : *loader::Users().find(user);
    configuration_.services.push_back(service);
  }

  // Removes what is strange, and returns the lines about it.
  std::string remove() {
    int ends[2] = {};
    EXPECT_EQ(::pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    const common::Descriptor out(ends[0]);
    const common::Descriptor in(ends[1]);
    loader::Log log(in.get());
    loader::removeStrangeMarkers(configuration_, folder_, log);
    char lines[4096];
    const ssize_t got = ::read(out.get(), lines, sizeof lines);
    return got > 0 ? std::string(lines, static_cast<std::size_t>(got)) : "";
  }

  char folder_[32] = "/tmp/markers_XXXXXX";
  Configuration configuration_;
};

TEST_F(LoaderMarkers, AMarkerOfAnotherUserIsRemovedWithALine) {
  configure("network", {"/usr/bin/netif", "--all"});
  makeFor(kOtherUser, "netif");
  makeFor(kOtherUser, "network");
  const std::string lines = remove();
  EXPECT_FALSE(isThere("netif"));
  EXPECT_FALSE(isThere("network"));
  EXPECT_NE(lines.find(at("netif") + ": is of another user (12345); removed\n"), std::string::npos) << lines;
}

TEST_F(LoaderMarkers, MarkersOfRootAndOfTheServicesUserStay) {
  configure("netif", {"/usr/bin/netif"});
  configure("guest", {"/usr/bin/guest"}, "nobody");
  const uid_t nobody = loader::Users().find("nobody").value();
  makeFor(0, "netif");
  makeFor(nobody, "guest");
  EXPECT_EQ(remove(), "");
  EXPECT_TRUE(isThere("netif"));
  EXPECT_TRUE(isThere("guest"));
  makeFor(nobody, "netif");  // a user of another service is a stranger here
  EXPECT_NE(remove(), "");
  EXPECT_FALSE(isThere("netif"));
}

TEST_F(LoaderMarkers, WhatHasAnotherNameStays) {
  configure("netif", {"/usr/bin/netif"});
  makeFor(kOtherUser, "netif2");
  EXPECT_EQ(remove(), "");
  EXPECT_TRUE(isThere("netif2"));
}

TEST_F(LoaderMarkers, ALinkIsRemovedAndNotWhereItLeads) {
  configure("netif", {"/usr/bin/netif"});
  makeFor(kOtherUser, "target");
  ASSERT_EQ(::symlink(at("target").c_str(), at("netif").c_str()), 0);
  ASSERT_EQ(::lchown(at("netif").c_str(), kOtherUser, kOtherUser), 0);
  EXPECT_NE(remove(), "");
  EXPECT_FALSE(isThere("netif"));
  EXPECT_TRUE(isThere("target"));
  ASSERT_EQ(::symlink(at("target").c_str(), at("netif").c_str()), 0);  // root's, to a stranger's file
  EXPECT_EQ(remove(), "");
  EXPECT_TRUE(isThere("netif"));
  EXPECT_TRUE(isThere("target"));
}

TEST_F(LoaderMarkers, AFolderIsRemovedIfItIsEmptyAndElseTold) {
  configure("netif", {"/usr/bin/netif"});
  ASSERT_EQ(::mkdir(at("netif").c_str(), 0700), 0);
  ASSERT_EQ(::chown(at("netif").c_str(), kOtherUser, kOtherUser), 0);
  make("netif/file");
  EXPECT_NE(remove().find("; cannot be removed: "), std::string::npos);
  EXPECT_TRUE(isThere("netif/file"));
  ::unlink(at("netif/file").c_str());
  EXPECT_NE(remove().find("; removed"), std::string::npos);
  EXPECT_FALSE(isThere("netif"));
}

TEST_F(LoaderMarkers, ServicesOfOneProgramShareItsMarker) {
  configure("one", {"/usr/bin/twin"});
  configure("two", {"/usr/bin/twin"}, "nobody");
  makeFor(loader::Users().find("nobody").value(), "twin");
  EXPECT_EQ(remove(), "");
  EXPECT_TRUE(isThere("twin"));
}

TEST_F(LoaderMarkers, ALongCommandIsCutAsTheMarkerIs) {
  const std::string program = std::string(70, 'x');
  configure("long", {"/usr/bin/" + program + "yyyy"});  // 79 bytes reach to the last x
  makeFor(kOtherUser, program);
  EXPECT_NE(remove(), "");
  EXPECT_FALSE(isThere(program));
}

TEST_F(LoaderMarkers, ANameThatLeadsOutOfTheFolderIsNone) {
  makeFor(kOtherUser, "outside");
  ASSERT_EQ(::mkdir(at("run").c_str(), 0700), 0);
  configure("../outside", {"/usr/bin/.."});
  loader::Log log(-1);
  loader::removeStrangeMarkers(configuration_, at("run"), log);
  EXPECT_TRUE(isThere("outside"));
}

TEST_F(LoaderMarkers, AFolderThatIsMissingIsNoFault) {
  configure("netif", {"/usr/bin/netif"});
  loader::Log log(-1);
  loader::removeStrangeMarkers(configuration_, at("nowhere"), log);
}

}  // namespace
