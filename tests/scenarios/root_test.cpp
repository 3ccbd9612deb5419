// Systems beside each other, each under a root of its own (KL_ROOT).  A process reads the variable once, so whoever speaks
// to a system here is a program or a child that is given its root.

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>

#include "kl/conventions.h"
#include "kl/utilities.h"
#include "tests/support/builders.h"
#include "tests/support/doubles/raw_peer.h"
#include "tests/support/process/child.h"
#include "tests/support/process/child_process.h"

namespace {

namespace fs = std::filesystem;
using kl::test::RawPeer;
using kl::test::runInChild;

constexpr unsigned int kHello = 34;

// A loader under a root of its own, with the example hello.
class System {
 public:
  explicit System(const std::string& name) {
    const char* own =
        std::getenv("KL_ROOT");  // where this test itself may make folders that root alone writes
    root_ = std::string(own != nullptr ? own : "") + "/kelo/" + name;
    fs::create_directory(root_);
    fs::create_directories(root_ + KL_ETC);
    std::ofstream(root_ + KL_ETC "/kl-loader.toml")
        << "[[service]]\nname = \"hello\"\nid = 34\ncommand = [\"" KL_BIN_DIR "/hello\"]\n";
    loader_.emplace([this] {
      ::setenv("KL_ROOT", root_.c_str(), 1);
      kl::test::become({KL_BIN_DIR "/kl-loader"});
    });
  }
  ~System() {
    EXPECT_EQ(loader_->end(SIGTERM), 0);
    fs::remove_all(root_);
  }
  System(const System&) = delete;
  System& operator=(const System&) = delete;

  const std::string& root() const { return root_; }
  bool has(const std::string& path) const { return fs::exists(root_ + path); }

  // The words of its service about itself, after it was told to say something else if that is not empty.
  std::string text(const std::string& fresh = "") const {
    return runInChild([&] {
             ::setenv("KL_ROOT", root_.c_str(), 1);
             RawPeer peer = RawPeer::registered(500);
             kl::message m = kl::test::request({kHello, 0}, kl::CMD_SET, 1);
             m.insert(kl::STD_DESCR, fresh);
             if (!fresh.empty()) peer.send(m);
             peer.send(kl::test::request({kHello, 0}, kl::CMD_GET, 2));
             const auto reply = peer.receiveReply(2);
             std::cout << (reply ? reply->get(kl::STD_DESCR, "") : "no reply");
           })
        .out;
  }

 private:
  std::string root_;
  std::optional<kl::test::ChildProcess> loader_;
};

TEST(RootScenario, TwoSystemsLiveBesideEachOther) {
  const System first("first");
  const System second("second");
  EXPECT_EQ(first.text("good evening"), "good evening");
  EXPECT_EQ(second.text(), "hello");
  EXPECT_EQ(first.text(), "good evening");
}

TEST(RootScenario, EverythingOfASystemLiesUnderItsRoot) {
  const System system("whole");
  EXPECT_EQ(system.text(), "hello");
  EXPECT_TRUE(system.has("/ram/kelosock"));
  EXPECT_TRUE(system.has("/kelo/loader/leave.idx")) << "the loader's state";
  EXPECT_TRUE(system.has("/kelo/run/hello")) << "the root was passed on: the service left its marker there";
}

TEST(RootScenario, WhatIsNotTakenEndsEachProgramWithStatus1AndALine) {
  for (const std::string program : {"kl-loader", "kl-logd", "hello"}) {
    const auto child = runInChild([&] {
      ::setenv("KL_ROOT", "here", 1);
      kl::test::become({KL_BIN_DIR "/" + program});
    });
    EXPECT_EQ(child.exitStatus, 1) << program;
    EXPECT_EQ(child.err, "KL_ROOT: expected an absolute path\n") << program;
  }
}

}  // namespace
