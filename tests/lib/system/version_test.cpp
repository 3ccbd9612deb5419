#include <gtest/gtest.h>

#include <iostream>

#include "fixed_paths.h"
#include "kl/utilities.h"
#include "tests/lib/system/private_mounts.h"
#include "tests/support/process/child.h"
#include "tests/support/process/descriptors.h"

namespace {

unsigned int word(unsigned int major, unsigned int minor, char kind, unsigned int number) {
  return major << 24 | minor << 16 | static_cast<unsigned int>(static_cast<unsigned char>(kind)) << 8 |
         number;
}

TEST(Version, AFinalReleaseHasItsNumberBehindAPoint) {
  EXPECT_EQ(version2string(word(1, 0, 'f', 0)), "1.0");
  EXPECT_EQ(version2string(word(1, 0, 'f', 1)), "1.0.1");
  EXPECT_EQ(version2string(word(3, 1, 'f', 4)), "3.1.4");
  EXPECT_EQ(version2string(word(255, 255, 'f', 255)), "255.255.255");
}

TEST(Version, APreReleaseHasItsTag) {
  EXPECT_EQ(version2string(word(2, 1, 'a', 1)), "2.1alpha1");
  EXPECT_EQ(version2string(word(3, 2, 'b', 10)), "3.2beta10");
  EXPECT_EQ(version2string(word(3, 2, 'c', 0)), "3.2rc");
}

TEST(Version, AnUnknownKindHasNoTag) {
  EXPECT_EQ(version2string(word(3, 2, 'x', 5)), "3.25");
  EXPECT_EQ(version2string(word(3, 2, '\xff', 0)), "3.2");
  EXPECT_EQ(version2string(0), "0.0");
}

// The result of getOSVersion() where the version file holds `text`; no file for a null pointer.
std::string versionOf(const char* text) {
  const kl::test::ChildResult child = kl::test::runInChild([text] {
    kl::test::takePrivateMounts();
    kl::test::coverFolder("/var");
    const std::string file = kl::underRoot(kl::paths::kVersionFile);
    kl::test::makeParents(file);
    if (text != nullptr) kl::test::writeFile(file, text);
    const std::vector<int> before = kl::test::openDescriptors();
    std::cout << "<" << getOSVersion() << ">" << std::flush;
    kl::test::require(kl::test::openDescriptors() == before, "the file is closed");
  });
  EXPECT_EQ(child.exitStatus, 0) << child.err;
  return child.out;
}

TEST(Version, TheSystemsVersionIsTheFirstNumberOfItsFile) {
  EXPECT_EQ(versionOf("50423300 77\n"), "<3.1.4>");
  EXPECT_EQ(versionOf(" 50487818\n77 and more"), "<3.2beta10>");
}

TEST(Version, AFileWithoutTwoNumbersGivesNoVersion) {
  EXPECT_EQ(versionOf("50423300\n"), "<>");
  EXPECT_EQ(versionOf("50423300 final\n"), "<>");
  EXPECT_EQ(versionOf("version 50423300 77\n"), "<>");
  EXPECT_EQ(versionOf(""), "<>");
}

TEST(Version, NoFileGivesNoVersion) { EXPECT_EQ(versionOf(nullptr), "<>"); }

}  // namespace
