// This program's syscall() stands before the C library's: it notes what the kernel is asked for.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <fstream>
#include <iostream>

#include "kl/utilities.h"
#include "tests/lib/system/private_mounts.h"
#include "tests/support/process/child.h"
#include "tests/support/process/descriptors.h"

namespace {

long scriptedResult = 0;

// How the module file is mapped: "r--s" is for reading only, and shared.
std::string mappingOfModule() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);)
    if (line.ends_with(".ko")) return line.substr(line.find(' ') + 1, 4);
  return "none";
}

void noteLoading(std::va_list arguments) {
  const char* const image = va_arg(arguments, const char*);
  const std::size_t bytes = va_arg(arguments, std::size_t);
  std::cout << "load <" << std::string(image, bytes) << "> " << mappingOfModule() << " <"
            << va_arg(arguments, const char*) << ">";
}

void noteRemoval(std::va_list arguments) {
  const char* const name = va_arg(arguments, const char*);
  std::cout << "remove <" << name << "> " << va_arg(arguments, unsigned int);
}

}  // namespace

extern "C" long syscall(long number, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, number);
  if (number == SYS_init_module) noteLoading(arguments);
  if (number == SYS_delete_module) noteRemoval(arguments);
  va_end(arguments);
  if (number == SYS_init_module || number == SYS_delete_module) return scriptedResult;
  errno = ENOSYS;
  return -1;
}

namespace {

// The effect of insmod() where the running kernel has the module file "example.ko".
std::string loading(const std::string& name, long result) {
  const kl::test::ChildResult child = kl::test::runInChild([&name, result] {
    scriptedResult = result;
    utsname kernel{};
    (void)::uname(&kernel);
    const std::string folder = std::string("/lib/modules/") + kernel.release + "/";
    kl::test::takePrivateMounts();
    kl::test::coverFolder("/lib");  // the libraries are loaded already
    kl::test::makeParents(folder);
    kl::test::writeFile(folder + "example.ko", "the module's image");
    kl::test::writeFile(folder + "empty.ko", "");
    const std::vector<int> before = kl::test::openDescriptors();
    const int returned = insmod(name, "debug=1 size=2");
    kl::test::require(kl::test::openDescriptors() == before, "the descriptors are closed");
    kl::test::require(mappingOfModule() == "none", "the file is no longer mapped");
    std::cout << ", result " << returned << std::flush;
  });
  EXPECT_EQ(child.exitStatus, 0) << child.err;
  return child.out;
}

std::string removal(const std::string& name, long result) {
  const kl::test::ChildResult child = kl::test::runInChild([&name, result] {
    scriptedResult = result;
    const int returned = rmmod(name);
    std::cout << ", result " << returned << std::flush;
  });
  EXPECT_EQ(child.exitStatus, 0) << child.err;
  return child.out;
}

TEST(KernelModules, LoadingHandsTheWholeFileAndTheParametersToTheKernel) {
  if (!kl::test::privateMountsAreAllowed()) GTEST_SKIP() << "needs mounts of its own";
  EXPECT_EQ(loading("example.ko", 0), "load <the module's image> r--s <debug=1 size=2>, result 0");
}

TEST(KernelModules, LoadingReturnsWhatTheKernelSays) {
  if (!kl::test::privateMountsAreAllowed()) GTEST_SKIP() << "needs mounts of its own";
  EXPECT_EQ(loading("example.ko", -1), "load <the module's image> r--s <debug=1 size=2>, result -1");
}

TEST(KernelModules, AFileThatCannotBeReadIsNotLoaded) {
  if (!kl::test::privateMountsAreAllowed()) GTEST_SKIP() << "needs mounts of its own";
  EXPECT_EQ(loading("missing.ko", 0), ", result -1");
  EXPECT_EQ(loading("empty.ko", 0), ", result -1");
  EXPECT_EQ(loading("", 0), ", result -1");  // the folder
}

TEST(KernelModules, RemovalCutsFoldersAndExtension) {
  EXPECT_EQ(removal("/lib/modules/x/my-driver.ko", 0), "remove <my_driver> 128, result 0");
  EXPECT_EQ(removal("my_driver", 0), "remove <my_driver> 128, result 0");
  EXPECT_EQ(removal("a.b/c", 0), "remove <c> 128, result 0");
}

TEST(KernelModules, RemovalMakesUnderscoresUpToTheFirstPoint) {
  EXPECT_EQ(removal("a-b-c.o", 0), "remove <a_b_c> 128, result 0");
  EXPECT_EQ(removal("a-b.c-d.ko", 0), "remove <a_b> 128, result 0");
  EXPECT_EQ(removal(".ko", 0), "remove <> 128, result 0");
}

TEST(KernelModules, RemovalReturnsWhatTheKernelSays) {
  EXPECT_EQ(removal("busy", -1), "remove <busy> 128, result -1");
}

}  // namespace
