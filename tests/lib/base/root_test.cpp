// The folder in front of the fixed paths.  Each answer comes from a process of its own, because the variable is read once.

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

#include "kl/utilities.h"
#include "tests/support/process/child.h"

namespace {

namespace fs = std::filesystem;
using kl::test::ChildResult;
using kl::test::runInChild;

constexpr uid_t kNobody = 65534;
constexpr uid_t kSomebody = 12345;

// The path that a process with this variable makes of one, or the line with which it ends.
ChildResult answer(const std::string& root, const std::string& path = "/kelo/x") {
  return runInChild([&] {
    ::setenv("KL_ROOT", root.c_str(), 1);
    std::cout << kl::underRoot(path);
  });
}

// The same of an ordinary user.
ChildResult answerOfSomebody(const std::string& root) {
  return runInChild([&] {
    if (::geteuid() == 0 && ::setuid(kSomebody) != 0) ::_exit(99);
    ::setenv("KL_ROOT", root.c_str(), 1);
    std::cout << kl::underRoot("/kelo/x");
  });
}

TEST(Root, WithoutOneThePathsAreAsTheyAreWritten) {
  const ChildResult child = runInChild([] {
    ::unsetenv("KL_ROOT");
    std::cout << kl::underRoot("/kelo/x") << kl::underRoot("");
  });
  EXPECT_EQ(child.out, "/kelo/x");
  EXPECT_EQ(answer("").out, "/kelo/x");
  EXPECT_EQ(answer("/").out, "/kelo/x");
}

TEST(Root, StandsInFrontOfAPath) {
  EXPECT_EQ(answerOfSomebody("/tmp/here").out, "/tmp/here/kelo/x");
  EXPECT_EQ(answerOfSomebody("/tmp/..here/...").out, "/tmp/..here/.../kelo/x");
  EXPECT_EQ(answerOfSomebody("/nowhere").out, "/nowhere/kelo/x") << "the loader makes it";
}

TEST(Root, ASlashAtItsEndIsNotTakenOver) {
  EXPECT_EQ(answerOfSomebody("/tmp/here//").out, "/tmp/here/kelo/x");
}

TEST(Root, IsReadOnce) {
  const ChildResult child = runInChild([] {
    ::setenv("KL_ROOT", "/usr", 1);
    std::cout << kl::loaderSocketPath();
    ::setenv("KL_ROOT", "/nowhere", 1);
    std::cout << " " << kl::logSocketPath() << " " << kl::runFolderPath();
  });
  EXPECT_EQ(child.out, "/usr/ram/kelosock /usr/kelo/logs/logsocket /usr/kelo/run");
}

TEST(Root, WhatIsNoAbsolutePathEndsTheProcess) {
  for (const std::string root : {"here", "./here", "../here", " /here"}) {
    const ChildResult child = answerOfSomebody(root);
    EXPECT_EQ(child.exitStatus, 1) << root;
    EXPECT_EQ(child.err, "KL_ROOT: expected an absolute path\n");
    EXPECT_EQ(child.out, "");
  }
}

TEST(Root, AStepUpwardsEndsTheProcess) {
  for (const std::string root : {"/..", "/../x", "/x/..", "/x/../y", "/.../..", "/x/..//"}) {
    const ChildResult child = answerOfSomebody(root);
    EXPECT_EQ(child.exitStatus, 1) << root;
    EXPECT_EQ(child.err, "KL_ROOT: expected a path without ..\n") << root;
  }
}

TEST(Root, TheLongestOneLeavesRoomForEachSocket) {
  const std::string longest = "/" + std::string(82, 'a');
  const std::string path = answerOfSomebody(longest).out;
  EXPECT_EQ(path, longest + "/kelo/x");
  EXPECT_LT(longest.size() + std::string("/kelo/logs/logsocket.new").size(), sizeof(sockaddr_un::sun_path));
  EXPECT_EQ(answerOfSomebody(longest + "/").out, path);
  const ChildResult child = answerOfSomebody(longest + "a");
  EXPECT_EQ(child.exitStatus, 1);
  EXPECT_EQ(child.err, "KL_ROOT: expected at most 83 bytes, so that sockets have room behind them\n");
}

// A folder that root alone writes, like all above it.
class RootOfRoot : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    char name[] = "/run/kl-root.XXXXXX";
    if (::mkdtemp(name) == nullptr) GTEST_SKIP() << "needs a folder /run";
    folder_ = name;
    if (answer("/run").exitStatus != 0) GTEST_SKIP() << "others write to /run here";
  }
  void TearDown() override {
    if (!folder_.empty()) fs::remove_all(folder_);
  }

  std::string made(const std::string& name, mode_t mode, uid_t owner = 0) const {
    const std::string path = folder_ + "/" + name;
    EXPECT_EQ(::mkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(::chown(path.c_str(), owner, 0), 0);
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
  }

  // The folder that it names when it refuses this one.
  static std::string refused(const std::string& root) {
    const ChildResult child = answer(root);
    EXPECT_EQ(child.exitStatus, 1) << root;
    EXPECT_EQ(child.out, "");
    const std::string begin = "KL_ROOT: expected a folder that root alone writes, unlike ";
    EXPECT_TRUE(child.err.starts_with(begin)) << child.err;
    return child.err.size() > begin.size()
               ? child.err.substr(begin.size(), child.err.size() - begin.size() - 1)
               : "";
  }

  std::string folder_;
};

TEST_F(RootOfRoot, IsAFolderThatRootAloneWrites) {
  EXPECT_EQ(answer(folder_).out, folder_ + "/kelo/x");
  EXPECT_EQ(answer(made("open", 0755) + "//").out, folder_ + "/open/kelo/x");
}

TEST_F(RootOfRoot, IsNoneThatOthersWrite) {
  for (const mode_t mode : {0775u, 0757u, 01777u}) {
    const std::string path = made("shared", mode);
    EXPECT_EQ(refused(path), path);
    fs::remove(path);
  }
}

TEST_F(RootOfRoot, IsNoneOfAnotherOwner) {
  const std::string path = made("strange", 0700, kNobody);
  EXPECT_EQ(refused(path), path);
}

TEST_F(RootOfRoot, LiesInNoneThatOthersWrite) {
  const std::string above = made("shared", 01777);
  ASSERT_EQ(::mkdir((above + "/own").c_str(), 0700), 0);
  EXPECT_EQ(refused(above + "/own"), above);
  EXPECT_EQ(refused("/tmp/nothing"), "/tmp");
}

TEST_F(RootOfRoot, IsNoLinkAndNoFileAndNotMissing) {
  const std::string target = made("target", 0700);
  const std::string link = folder_ + "/link";
  fs::create_symlink(target, link);
  EXPECT_EQ(refused(link), link);
  EXPECT_EQ(refused(link + "/x"), link);
  EXPECT_EQ(refused("/dev/null"), "/dev/null");
  EXPECT_EQ(refused(target + "/none/x"), target + "/none");
}

TEST_F(RootOfRoot, OfAnOrdinaryUserIsAnyFolder) {
  EXPECT_EQ(answerOfSomebody(made("shared", 01777)).out, folder_ + "/shared/kelo/x");
}

// For the program that the next test starts: this one, with the set-user-ID bit.
TEST(RootOfASetUidProgram, DISABLED_IsPrinted) { std::cout << "[" << kl::underRoot("/kelo/x") << "]"; }

TEST_F(RootOfRoot, IsNoBusinessOfASetUidProgram) {
  struct statvfs mounted {};
  if (::statvfs(folder_.c_str(), &mounted) != 0 || (mounted.f_flag & (ST_NOSUID | ST_NOEXEC)) != 0)
    GTEST_SKIP() << "needs a file system whose programs may have the set-user-ID bit";
#ifdef KL_EMULATED
  GTEST_SKIP() << "an emulated program has no set-user-ID bit";
#endif
  const std::string program = made("bin", 0755) + "/program";
  fs::copy_file(fs::read_symlink("/proc/self/exe"), program);
  ASSERT_EQ(::chmod(folder_.c_str(), 0755), 0);
  const auto run = [&](mode_t mode) {
    EXPECT_EQ(::chown(program.c_str(), kNobody, kNobody), 0);
    EXPECT_EQ(::chmod(program.c_str(), mode), 0);
    return runInChild([&] {
             if (::setgroups(0, nullptr) != 0 || ::setuid(kSomebody) != 0) ::_exit(99);
             ::setenv("KL_ROOT", "/tmp/here", 1);
             kl::test::become(
                 {program, "--gtest_also_run_disabled_tests", "--gtest_filter=*DISABLED_IsPrinted"});
           })
        .out;
  };
  EXPECT_NE(run(0755).find("[/tmp/here/kelo/x]"), std::string::npos);
  EXPECT_NE(run(04755).find("[/kelo/x]"), std::string::npos);
}

}  // namespace
