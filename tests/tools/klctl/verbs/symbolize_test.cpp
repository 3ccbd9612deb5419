#include "tools/klctl/verbs/symbolize.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace klctl {
namespace {

// A report of this very program, at its first mapped code.
std::string reportOf(const std::string& program, const std::string& more = "") {
  return program + "\n--- signal=11 --------------------------------------------\n\nrip=0x0000000000001000 " +
         "rsp=0x0000000000000000\n\nbacktrace:\n\n\ncode:\n\n\nmaps:\n00001000-00002000 r-xp 00001000 fe:00 "
         "1  " +
         program + "\n" + more + "\n\n";
}

TEST(Symbolized, OfAProgramThatIsNotThereThereIsNothing) {
  EXPECT_EQ(symbolized(reportOf("/nowhere/x"), "/nowhere/x"), "");
  EXPECT_EQ(symbolized(reportOf("x"), "--help"), "");
}

TEST(Symbolized, LibrariesAreThoseThatTheReportNamesWholeAndThatAreThere) {
  const std::string shell = std::filesystem::canonical("/bin/sh").string();
  const std::string line = "00003000-00004000 r-xp 00001000 fe:00 2  ";
  const std::string cut = (line + shell + std::string(100, ' ')).substr(0, 100);
  const std::string report = reportOf(
      "/bin/x", line + shell + "\n" + line + shell + "\n" + line + "/nowhere/lib.so\n" + line + "[vdso]\n");
  EXPECT_EQ(librariesIn(report, "/bin/x"), std::vector<std::string>{shell});
  EXPECT_EQ(librariesIn(reportOf("/bin/x", cut + "\n"), "/bin/x"), std::vector<std::string>());
  EXPECT_EQ(librariesIn("no report", "/bin/x"), std::vector<std::string>());
}

// A report is what a process has said: with the name of a file it must not get that file read by root's debugger.
TEST(Symbolized, AFileThatOthersMayWriteIsNotRead) {
  char name[] = "/tmp/klctl-symbolize-XXXXXX";
  const std::string folder = ::mkdtemp(name);
  const std::string library = folder + "/lib.so";
  std::filesystem::copy_file(std::filesystem::canonical("/bin/sh"), library);
  const std::string report = reportOf("/bin/x", "00003000-00004000 r-xp 00001000 fe:00 2  " + library + "\n");
  EXPECT_EQ(::chmod(library.c_str(), 0755), 0);
  EXPECT_EQ(librariesIn(report, "/bin/x"), std::vector<std::string>{library});
  EXPECT_EQ(::chmod(library.c_str(), 0757), 0);
  EXPECT_EQ(librariesIn(report, "/bin/x"), std::vector<std::string>());
  if (::geteuid() == 0) {
    EXPECT_EQ(::chmod(library.c_str(), 0755), 0);
    EXPECT_EQ(::chown(library.c_str(), 65534, 65534), 0);
    EXPECT_EQ(librariesIn(report, "/bin/x"), std::vector<std::string>());
  }
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace klctl
