// The names of the services.

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "kl/conventions.h"

namespace kl {
namespace {

TEST(ServiceNames, TheLibrarysOwnPartnersAreNamed) {
  EXPECT_STREQ(findServiceName(SERVICE_LOADER), "loader");
  EXPECT_STREQ(findServiceName(SERVICE_UNDO), "undo");
  EXPECT_STREQ(findServiceName(SERVICE_SYSTEM), "system");
}

TEST(ServiceNames, LineNOfTheListNamesServiceN) {
  std::ifstream list(KL_SOURCE_DIR "/lib/protocol/services.list");
  std::string name;
  unsigned int number = 0;
  for (; std::getline(list, name); ++number) EXPECT_EQ(findServiceName(number), name) << number;
  EXPECT_EQ(number, 107u);
}

TEST(ServiceNames, ANumberAbove106HasNoName) {
  EXPECT_STRNE(findServiceName(106), nullptr);
  EXPECT_EQ(findServiceName(107), nullptr);
  EXPECT_EQ(findServiceName(BADID), nullptr);
}

TEST(ServiceNames, ANameLeadsBackToItsNumber) {
  for (unsigned int number = 0; number < kServiceNames; ++number)
    EXPECT_EQ(findServiceID(findServiceName(number)), number);
  EXPECT_EQ(findServiceID("nobody"), BADID);
  EXPECT_EQ(findServiceID(""), BADID);
}

}  // namespace
}  // namespace kl
