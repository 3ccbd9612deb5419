// A disk without room for the report of a crash.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

#include "services/loader/crashes/crash_store.h"
#include "tests/support/build/effort.h"
#include "tests/support/calls/faults.h"

namespace {

using kl::test::FaultRun;
namespace fs = std::filesystem;

// One crash is there when the next one finds the disk full.
void keepTwo() {
  char folder[] = "/ram/full_disk_XXXXXX";
  if (::mkdtemp(folder) == nullptr) return;
  loader::Log lines(STDOUT_FILENO);
  loader::CrashStore store(std::string(folder) + "/crashes", lines);
  store.open();
  store.add({.time = 1, .service = "old", .serviceId = 32, .key = "a"}, {"first"});
  kl::test::exposed(
      [&] { store.add({.time = 2, .service = "new", .serviceId = 33, .key = "b"}, {"second"}); });
  for (const loader::KeptCrash& crash : store.all())
    std::cout << "kept " << crash.service << " in "
              << fs::exists(folder + ("/crashes/" + std::to_string(crash.id))) << " file" << std::endl;
  fs::remove_all(folder);
}

TEST(CrashStoreFaults, OnAFullDiskTheOldestReportMakesRoomAndTheLogSaysSo) {
  unsigned int full = 0;
  const unsigned int tried =
      kl::test::forEachFault(kl::test::faultsOf({"write"}), keepTwo, [&](const FaultRun& run) {
        if (!run.is("write", ENOSPC)) return;
        ++full;
        EXPECT_NE(run.child.out.find("the disk is full: crash report 1 of old makes room\n"),
                  std::string::npos)
            << run.child.out;
        EXPECT_NE(run.child.out.find("kept new in 1 file\n"), std::string::npos) << run.child.out;
        EXPECT_EQ(run.child.out.find("kept old"), std::string::npos) << run.child.out;
      });
  EXPECT_EQ(full, kl::test::kEmulated && tried == 0 ? 0u : 1u);
}

}  // namespace
