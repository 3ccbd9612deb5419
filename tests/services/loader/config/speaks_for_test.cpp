#include "services/loader/config/speaks_for.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "services/loader/admission/rights.h"

namespace {

using loader::Configuration;

constexpr uid_t kDaemon = 1;
constexpr uid_t kSys = 3;

class SpeaksForTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() >= kDaemon && ::geteuid() <= kSys) GTEST_SKIP() << "this user may do everything";
  }

  static Configuration read(const std::string& service, const std::string& rights = "") {
    common::Mistakes mistakes;
    const std::string text = "[rights]\n" + rights + "[[service]]\nname = \"web\"\nid = 40\n" + service;
    Configuration c = loader::parseConfiguration(text, "f", mistakes);
    for (const auto& mistake : mistakes) mistakes_ += mistake.describe() + "\n";
    return c;
  }
  static std::string warningsOf(const Configuration& c) {
    std::string text;
    for (const auto& warning : c.warnings) text += warning.describe() + "\n";
    return text;
  }
  static std::shared_ptr<const loader::UsersSpokenFor> spokenBy(const Configuration& c) {
    return loader::senderRights(c, {kDaemon, c.find(40)}).speaksFor;
  }

  void TearDown() override { mistakes_.clear(); }

  static inline std::string mistakes_;
};

TEST_F(SpeaksForTest, UsersAndMembersOfGroupsAreSpokenFor) {
  const Configuration c = read("user = \"daemon\"\nspeaks_for = [\"bin\", \"@sys\"]\n");
  EXPECT_EQ(mistakes_, "");
  EXPECT_EQ(warningsOf(c), "");
  const auto users = spokenBy(c);
  ASSERT_NE(users, nullptr);
  EXPECT_NE(users->find("bin"), nullptr);
  EXPECT_NE(users->find("sys"), nullptr);
  for (const char* other : {"daemon", "root", "nobody", "@sys", ""})
    EXPECT_EQ(users->find(other), nullptr) << other;
}

TEST_F(SpeaksForTest, WithoutTheKeyAServiceSpeaksForNobody) {
  EXPECT_EQ(spokenBy(read("user = \"daemon\"\n")), nullptr);
  EXPECT_EQ(spokenBy(read("user = \"daemon\"\nspeaks_for = []\n")), nullptr);
}

TEST_F(SpeaksForTest, TheRightsAreThoseOfTheUserHimself) {
  const Configuration c = read("user = \"daemon\"\nrights = \"control\"\nspeaks_for = [\"bin\"]\n",
                               "bin = [\"read\", \"change\"]\n");
  const auto users = spokenBy(c);
  const loader::SenderRights* bin = users->find("bin");
  ASSERT_NE(bin, nullptr);
  EXPECT_EQ(bin->grants.at(0).rights.bits, kl::RIGHT_READ | kl::RIGHT_CHANGE);
  EXPECT_EQ(bin->user, loader::trustedRights("bin").user);
}

TEST_F(SpeaksForTest, NobodySpeaksForThePowerful) {
  const Configuration c =
      read("user = \"daemon\"\nspeaks_for = [\"bin\", \"root\", \"sys\"]\n", "bin = \"all\"\n");
  EXPECT_EQ(mistakes_, "");
  const std::string warnings = warningsOf(c);
  EXPECT_NE(warnings.find("bin may do everything, so nobody speaks for him"), std::string::npos) << warnings;
  EXPECT_NE(warnings.find("root may do everything, so nobody speaks for him"), std::string::npos) << warnings;
  EXPECT_EQ(spokenBy(c)->find("bin"), nullptr);
  EXPECT_EQ(spokenBy(c)->find("root"), nullptr);
  EXPECT_NE(spokenBy(c)->find("sys"), nullptr);
}

// The rights of a request in his name are worked out as for the service itself, which may have more than he.
TEST_F(SpeaksForTest, ItsOwnUserNeedsNobodyToSpeakForHim) {
  const Configuration c = read("user = \"daemon\"\nspeaks_for = [\"daemon\", \"@daemon\", \"bin\"]\n");
  EXPECT_EQ(mistakes_, "");
  EXPECT_NE(warningsOf(c).find("daemon is its own user, in whose name it asks anyway"), std::string::npos);
  EXPECT_EQ(spokenBy(c)->find("daemon"), nullptr);
  EXPECT_NE(spokenBy(c)->find("bin"), nullptr);
}

TEST_F(SpeaksForTest, WhomNobodyKnowsIsAWarning) {
  const Configuration c =
      read("user = \"daemon\"\nspeaks_for = [\"nosuchuser\", \"@nosuchgroup\", \"7003\"]\n");
  EXPECT_EQ(mistakes_, "");
  for (const char* name : {"nosuchuser", "@nosuchgroup", "7003"})
    EXPECT_NE(warningsOf(c).find("this system has nobody of the name " + std::string(name)),
              std::string::npos)
        << name;
  EXPECT_EQ(spokenBy(c), nullptr);
}

TEST_F(SpeaksForTest, AServiceOfTheLoadersUserOrOfRootHasNoUseForIt) {
  for (const char* user : {"", "user = \"root\"\n"}) {
    (void)read(std::string(user) + "speaks_for = [\"bin\"]\n");
    EXPECT_NE(mistakes_.find("speaks_for: expected a user for this service"), std::string::npos) << mistakes_;
    mistakes_.clear();
  }
}

TEST_F(SpeaksForTest, AServiceWithAllRightsHasNoUseForIt) {
  (void)read("user = \"daemon\"\nrights = \"all\"\nspeaks_for = [\"bin\"]\n");
  EXPECT_NE(mistakes_.find("expected a service without the right \"all\""), std::string::npos) << mistakes_;
  mistakes_.clear();
  (void)read("user = \"daemon\"\nspeaks_for = [\"bin\"]\n", "daemon = \"all\"\n");
  EXPECT_NE(mistakes_.find("expected a service without the right \"all\""), std::string::npos) << mistakes_;
}

TEST_F(SpeaksForTest, ItIsAListOfTexts) {
  (void)read("user = \"daemon\"\nspeaks_for = \"bin\"\n");
  EXPECT_NE(mistakes_.find("speaks_for"), std::string::npos);
}

}  // namespace
