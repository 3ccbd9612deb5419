#include "services/loader/admission/registration.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "services/loader/admission/rights.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Applicant;
using loader::Configuration;
using loader::IdCounter;
using loader::Registration;
using loader::Rights;
using loader::Service;
using loader::ServiceTable;

constexpr uid_t kStranger = 65534;  // "nobody"

class RegistrationTest : public testing::Test {
 protected:
  static kl::message hello(unsigned int id) {
    kl::message m;
    m.insert(kl::SYS_TO, {1});
    m.insert(kl::SYS_CTRL, kl::CTRL_HELLO);
    m.insert(kl::REGISTRATION_VALUES, {id, 0x01006600, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    return m;
  }

  Service* admit(const Applicant& who, const kl::message& m) {
    body_ = flat(m);
    loader::Envelope e;
    EXPECT_EQ(readEnvelope(body_, e), nullptr);
    Service* service = registration_.admit(who, e, refusal_);
    if (service != nullptr) service->connect();
    return service;
  }
  Service* admit(const Applicant& who, unsigned int id) { return admit(who, hello(id)); }

  // The rights of an admitted service at a destination without a list of its own.
  static Rights grantOf(const Service* service) {
    if (service == nullptr || service->rights.isTrusted || service->rights.grants.empty())
      return Rights::nothing();
    return service->rights.grants[0].rights;
  }

  Service& configure(loader::ServiceConfiguration c, unsigned int id) {
    c.id = id;
    c.name = "configured";
    Service& service = table_.add(id);
    service.name = c.name;
    service.isConfigured = true;
    configuration_.services.push_back(c);
    return service;
  }

  loader::Log log_{-1};
  ServiceTable table_;
  IdCounter ids_{"/nowhere/next-id", log_};
  Configuration configuration_;
  Registration registration_{table_, ids_, configuration_};
  std::vector<unsigned char> body_;
  std::string refusal_;
  const Applicant me_{{::getpid(), ::geteuid()}, nullptr};
  const Applicant stranger_{{::getpid(), kStranger}, nullptr};
};

TEST_F(RegistrationTest, WhoAsksForNoIdGetsThoseFrom0x10000On) {
  EXPECT_EQ(admit(me_, 0u)->id, 0x10000u);
  EXPECT_EQ(admit(me_, 0u)->id, 0x10001u);
}

TEST_F(RegistrationTest, APickedIdIsNeverOneThatIsTaken) {
  ASSERT_NE(admit(me_, 0u), nullptr);
  table_.add(0x10001);
  EXPECT_EQ(admit(me_, 0u)->id, 0x10002u);
}

TEST_F(RegistrationTest, AnOrdinaryUserGetsNoIdThatSomebodyHadWithinADay) {
  for (unsigned int id = IdCounter::kFirst; id <= IdCounter::kLast; ++id) (void)ids_.next();
  EXPECT_EQ(admit(stranger_, 0u), nullptr);
  EXPECT_EQ(refusal_, "asks for any id, and all have been given out within a day");
  EXPECT_NE(admit(me_, 0u), nullptr);
}

TEST_F(RegistrationTest, ANewProcessHasYetToSayThatItMayLeave) {
  Service* service = admit(me_, 500u);
  ASSERT_NE(service, nullptr);
  service->leaveValue = 5;
  service->wantsToLeave = true;
  service->disconnect();
  service->pid = 0;
  ASSERT_EQ(admit(me_, 500u), service);
  EXPECT_EQ(service->leaveValue, 0u);
  EXPECT_FALSE(service->wantsToLeave);
}

TEST_F(RegistrationTest, ANameThatAProcessChoseItselfIsMadePrintable) {
  char before[16] = "";
  ASSERT_EQ(::prctl(PR_GET_NAME, before), 0);
  ASSERT_EQ(::prctl(PR_SET_NAME, "a\x1b[2J\xc3z"), 0);
  const Service* service = admit(me_, 500u);
  (void)::prctl(PR_SET_NAME, before);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->name, "a\\x1b[2J\\xc3z");
}

TEST_F(RegistrationTest, TheConfirmationCarriesWhatTheServiceSaved) {
  kl::message data;
  data.insert(kl::STD_ID, 9);
  const kl::message ready = registration_.readyMessage(*admit(me_, 500u), flat(data));
  EXPECT_EQ(kl::message(ready.get(kl::READY_DATA, {})), data);
  EXPECT_FALSE(registration_.readyMessage(*table_.find(500)).has(kl::READY_DATA));
}

TEST_F(RegistrationTest, WhoAsksForNoIdIsShownWithItsUser) {
  const Service* service = admit(stranger_, 0u);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->user, configuration_.users.nameOf(kStranger));
  EXPECT_EQ(service->starts, 1u);
  EXPECT_FALSE(service->name.empty());
}

TEST_F(RegistrationTest, ATakenIdIsRefused) {
  (void)admit(me_, 500u);
  EXPECT_EQ(admit(me_, 500u), nullptr);
  EXPECT_NE(refusal_.find("asks for the id 500, which "), std::string::npos) << refusal_;
}

TEST_F(RegistrationTest, AnIdThatNobodyIsConfiguredForIsForRootAndTheLoadersOwnUserAlone) {
  for (const unsigned int id : {2u, 17u, 24u, 500u, 0xffffu, 0xff0000u, 0xff0004u, 0xfffffffeu}) {
    EXPECT_EQ(admit(stranger_, id), nullptr) << id;
    EXPECT_EQ(refusal_, "asks for the id " + std::to_string(id) + ", which nobody is configured for");
    Service* service = admit(me_, id);
    ASSERT_NE(service, nullptr) << id;
    service->disconnect();  // it has ended, and its row waits to be removed
    EXPECT_EQ(admit(stranger_, id), nullptr) << id;
    EXPECT_NE(admit({{::getpid(), 0}, nullptr}, id), nullptr) << id;
  }
}

TEST_F(RegistrationTest, NobodyAsksForAnIdThatTheLoaderPicks) {
  for (const unsigned int id : {0x10000u, 0x10001u, 0x80000u, 0xfeffffu})
    for (const Applicant& who : {stranger_, me_, Applicant{{::getpid(), 0}, nullptr}}) {
      EXPECT_EQ(admit(who, id), nullptr) << id;
      EXPECT_EQ(refusal_, "asks for the id " + std::to_string(id) + ", which is for the loader to pick");
    }
}

TEST_F(RegistrationTest, AConfiguredIdAmongThoseIsForItsService) {
  (void)configure({}, 0x10000);
  EXPECT_NE(admit(me_, 0x10000u), nullptr);
  EXPECT_EQ(admit(me_, 0u)->id, 0x10001u);
}

TEST_F(RegistrationTest, SomeIdsAreNeverGiven) {
  for (const unsigned int id : {1u, kl::PATH_ALL, kl::PATH_MULTI, kl::PATH_SELF, kl::BADID}) {
    EXPECT_EQ(admit(me_, id), nullptr) << id;
    EXPECT_NE(refusal_.find("never given"), std::string::npos);
  }
}

TEST_F(RegistrationTest, AConfiguredIdBelongsToTheProcessThatTheLoaderStarted) {
  loader::ServiceConfiguration c;
  c.command = {"/bin/true"};
  Service& service = configure(c, 32);
  service.pid = 4711;
  EXPECT_EQ(admit(me_, 32u), nullptr);
  EXPECT_NE(refusal_.find("whose process runs"), std::string::npos) << refusal_;
  const Applicant child{{4711, ::geteuid()}, &service};
  EXPECT_EQ(admit(child, 99u), nullptr);  // it may not ask for another one
  EXPECT_EQ(admit(child, 0u), &service);
  EXPECT_EQ(service.pid, 4711);
  EXPECT_EQ(service.name, "configured");
}

TEST_F(RegistrationTest, AProcessThatWasAskedToLeaveDoesNotRegisterAnew) {
  Service& service = configure({}, 32);
  service.pid = 4711;
  service.state = kl::SVC_STATE_LEAVING;
  EXPECT_EQ(admit({{4711, ::geteuid()}, nullptr}, 32u), nullptr);
  EXPECT_EQ(refusal_, "asks for the id 32, which is leaving");
}

TEST_F(RegistrationTest, WithoutItsProcessAConfiguredIdBelongsToItsUser) {
  loader::ServiceConfiguration c;
  c.user = configuration_.users.nameOf(kStranger);
  c.uid = kStranger;
  Service& service = configure(c, 32);
  if (::geteuid() != kStranger) {
    EXPECT_EQ(admit(me_, 32u), nullptr);
    EXPECT_NE(refusal_.find("not for this user"), std::string::npos) << refusal_;
  }
  EXPECT_EQ(admit(stranger_, 32u), &service);
}

TEST_F(RegistrationTest, AConfiguredIdWithoutUserBelongsToTheLoadersOwn) {
  loader::ServiceConfiguration c;
  Service& service = configure(c, 32);
  EXPECT_EQ(admit(stranger_, 32u), nullptr);
  EXPECT_EQ(admit(me_, 32u), &service);
}

TEST_F(RegistrationTest, ARegistrationWithoutItsValuesIsRefused) {
  kl::message m = hello(500);
  m.insert(kl::REGISTRATION_VALUES, {500});
  EXPECT_EQ(admit(me_, m), nullptr);
  EXPECT_EQ(refusal_, "registers without its values");
  m.remove(kl::REGISTRATION_VALUES);
  EXPECT_EQ(admit(me_, m), nullptr);
}

TEST_F(RegistrationTest, TheLoadersOwnUserHasAllRightsAndOthersReadOnly) {
  EXPECT_TRUE(admit(me_, 0u)->rights.isTrusted);
  EXPECT_TRUE(admit({{::getpid(), 0}, nullptr}, 0u)->rights.isTrusted);
  EXPECT_EQ(grantOf(admit(stranger_, 0u)), Rights::of(64));
}

TEST_F(RegistrationTest, AServiceHasTheRightsOfItsUserUnlessItHasItsOwn) {
  loader::AccessEntry entry{
      loader::AccessEntry::Kind::kUser, "stranger", 3, Rights::of(64 | 128), {kStranger}};
  configuration_.rights.entries.push_back(entry);
  EXPECT_EQ(grantOf(admit(stranger_, 0u)), Rights::of(64 | 128));

  loader::ServiceConfiguration plain;
  plain.user = configuration_.users.nameOf(kStranger);
  plain.uid = kStranger;
  configure(plain, 32);
  EXPECT_EQ(grantOf(admit(stranger_, 32u)), Rights::of(64 | 128));  // those of its user, and not all

  plain.rights = Rights::of(0);
  configure(plain, 33);
  EXPECT_EQ(grantOf(admit(stranger_, 33u)), Rights::of(0));
}

TEST_F(RegistrationTest, TheConfirmationTellsIdVersionStartsAndSettings) {
  loader::ServiceConfiguration c;
  c.settings = {0x4d, 0x32, 5, 0, 0, 9, 7};
  Service& service = configure(c, 32);
  service.starts = 3;
  const kl::message ready = registration_.readyMessage(service);
  unsigned int code = 0;
  EXPECT_TRUE(kl::isCtrl(ready, &code));
  EXPECT_EQ(code, kl::CTRL_READY);
  EXPECT_EQ(ready.get(kl::READY_ID, 0), 32u);
  EXPECT_EQ(ready.get(kl::READY_VERSION, 0), 0x01006600u);
  EXPECT_EQ(ready.get(kl::READY_STARTS, 0), 3u);
  EXPECT_FALSE(ready.has(kl::READY_DATA));
  EXPECT_EQ(kl::message(ready.get(kl::READY_CONFIGURATION, {})).get_u32(0x08000005, 0), 7u);
}

}  // namespace
