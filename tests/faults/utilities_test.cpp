// The utilities while the system refuses: the results that say so, and no descriptor or mapping left behind.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstdarg>
#include <fstream>

#include "kl/runner.h"
#include "kl/utilities.h"
#include "tests/lib/system/private_mounts.h"
#include "tests/support/calls/faults.h"
#include "tests/support/calls/real_calls.h"

namespace {

unsigned int modulesLoaded = 0;

}  // namespace

// The kernel's part of loading a module is not tried on the machine that tests.
extern "C" long syscall(long number, ...) noexcept {
  static auto* const next = kl::test::realCall<long(long, ...)>("syscall");
  std::va_list arguments;
  va_start(arguments, number);
  long a[6];
  for (long& argument : a) argument = va_arg(arguments, long);
  va_end(arguments);
  if (number != SYS_init_module) return next(number, a[0], a[1], a[2], a[3], a[4], a[5]);
  ++modulesLoaded;
  return 0;
}

namespace {

using kl::test::exposed;
using kl::test::FaultRun;

TEST(UtilityFaults, MemoryThatCannotBeReadIsAllOnes) {
  const unsigned int tried = kl::test::forEachFault(
      kl::test::everyFault(),
      [] {
        unsigned int total = 7;
        unsigned int free = 0;
        exposed([&] { free = kl::getFreeMemory(&total); });
        std::printf("%u %u", free, total);
      },
      [](const FaultRun& run) { EXPECT_EQ(run.child.out, "4294967295 7"); });
  EXPECT_GE(tried, 1U);
}

TEST(UtilityFaults, AVersionThatCannotBeReadIsEmpty) {
  const unsigned int tried = kl::test::forEachFault(
      kl::test::everyFault(),
      [] {
        std::string version = "x";
        exposed([&] { version = getOSVersion(); });
        EXPECT_EQ(version, "");
      },
      [](const FaultRun& run) { EXPECT_EQ(run.child.exitStatus, 0); });
  EXPECT_GE(tried, 1U);
}

bool isMapped(const std::string& name) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);)
    if (line.find(name) != std::string::npos) return true;
  return false;
}

TEST(UtilityFaults, AModuleThatCannotBeMappedIsNotLoaded) {
  const unsigned int tried = kl::test::forEachFault(
      kl::test::everyFault(),
      [] {
        utsname kernel{};
        (void)::uname(&kernel);
        const std::string folder = std::string("/lib/modules/") + kernel.release + "/";
        kl::test::takePrivateMounts();
        kl::test::coverFolder("/lib");  // the libraries are loaded already
        kl::test::makeParents(folder);
        kl::test::writeFile(folder + "example.ko", "the module's image");
        int result = 7;
        exposed([&] { result = insmod("example.ko", ""); });
        std::printf("%d %u", result, modulesLoaded);
        EXPECT_FALSE(isMapped("example.ko"));
      },
      [](const FaultRun& run) {
        EXPECT_EQ(run.child.exitStatus, 0);
        EXPECT_EQ(run.child.out, run.is("close", EIO) ? "0 1" : "-1 0");
      });
  EXPECT_GE(tried, 6U);
}

}  // namespace
