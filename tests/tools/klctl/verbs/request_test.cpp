#include "tools/klctl/verbs/request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/builders.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

using kl::test::flat;

// The loader with its table of two, and netif with one object, in one place; keeps what it was asked.
class Requests : public testing::Test {
 protected:
  std::string run(std::vector<const char*> words) {
    const std::string dictionaries = std::string(KL_SOURCE_DIR) + "/tools/fields";
    words.insert(words.begin(), {"--fields", dictionaries.c_str()});
    RecordedChannels channels([this](const kl::message& m) { return answer(m); });
    const std::string printed = channels.perform(parsed(words));
    sent_ = channels.sent;
    return printed;
  }

  kl::message answer(const kl::message& request) {
    if (request.get(kl::SYS_TO, {}) == std::vector<unsigned int>{1}) return loader(request);
    last_ = request;
    return reply_;
  }

  kl::message loader(const kl::message& request) const {
    kl::message netif;
    netif.insert(kl::STD_ID, 32);
    netif.insert(kl::SVC_NAME, "netif");
    netif.insert(kl::SVC_STATE, kl::SVC_STATE_RUNNING);
    netif.insert(kl::SVC_DROPS, 3);
    if (wakeAt_ != 0) netif.insert(kl::SVC_WAKE_AT, wakeAt_);
    if (request.get(kl::SYS_CMD, 0) == kl::CMD_GETOBJ) return netif;
    kl::message reply;
    reply.insert(kl::STD_OBJS, {flat(netif)});
    return reply;
  }

  void replyWithInterface() {
    kl::message eth0;
    eth0.insert(kl::STD_ID, 2);
    eth0.insert_string(0x20000001, "eth0");
    eth0.insert_raw(0x30000002, {2, 0xfc});
    reply_.insert(kl::STD_OBJS, {flat(eth0)});
  }

  unsigned int command() const { return last_.get(kl::SYS_CMD, 0); }

  kl::message reply_;
  kl::message last_;  // the last request to a service other than the loader
  kl::message sent_;  // the last message that expects no reply
  unsigned int wakeAt_ = 0;
};

}  // namespace

TEST_F(Requests, GetReadsSettingsOrAnObject) {
  (void)run({"get", "netif"});
  EXPECT_EQ(command(), kl::CMD_GET);
  EXPECT_EQ(last_.get(kl::SYS_TO, {}), std::vector<unsigned int>{32});
  EXPECT_FALSE(last_.has(kl::STD_ID));
  (void)run({"get", "netif/3:2"});
  EXPECT_EQ(command(), kl::CMD_GETOBJ);
  EXPECT_EQ(last_.get(kl::SYS_TO, {}), (std::vector<unsigned int>{32, 3}));
  EXPECT_EQ(last_.get(kl::STD_ID, 0), 2u);
}

TEST_F(Requests, SetChangesSettingsOrAnObject) {
  (void)run({"set", "netif", "descr=x"});
  EXPECT_EQ(command(), kl::CMD_SET);
  EXPECT_EQ(last_.get(kl::STD_DESCR, ""), "x");
  (void)run({"set", "netif", "--id", "2", "mtu=0x5dc"});
  EXPECT_EQ(command(), kl::CMD_SETOBJ);
  EXPECT_EQ(last_.get_u32(0x08000004, 0), 1500u);
}

TEST_F(Requests, SendAsksWhetherAServiceIsThereOrWhateverItIsTold) {
  (void)run({"send", "32"});
  EXPECT_EQ(command(), kl::CMD_NOOP);
  EXPECT_EQ(last_.size_u32(kl::SYS_CMD), 1u);
  (void)run({"send", "32", "0x60001", "u32:0x1b=7"});
  EXPECT_EQ(command(), 0x60001u);
  EXPECT_EQ(last_.get_u32(0x0800001b, 0), 7u);
}

TEST_F(Requests, ACommandWordReplacesTheUsualCommand) {
  (void)run({"get", "netif", "getcount"});
  EXPECT_EQ(command(), kl::CMD_GETCOUNT);
  (void)run({"getall", "netif", "getpolicies"});
  EXPECT_EQ(command(), kl::CMD_GETPOLICIES);
}

TEST_F(Requests, AMessageThatExpectsNoReplyIsSentOnly) {
  EXPECT_EQ(run({"send", "--no-reply", "netif", "reset"}), "");
  EXPECT_EQ(sent_.get(kl::SYS_CMD, 0), kl::CMD_RESET);
  EXPECT_EQ(sent_.get(kl::SYS_TO, {}), std::vector<unsigned int>{32});
  EXPECT_TRUE(last_ == kl::message());
}

TEST_F(Requests, AReplyIsShownWithoutWhatBelongsToItsJourney) {
  reply_.insert(kl::SYS_TYPE, kl::TYPE_REPLY);
  reply_.insert(kl::SYS_REQID, 7);
  reply_.insert(kl::SYS_FROM, {32});
  EXPECT_EQ(run({"send", "netif"}), "");
  EXPECT_EQ(run({"send", "netif", "--json"}), "{}\n");
  reply_.insert(kl::STD_DESCR, "hello");
  EXPECT_EQ(run({"get", "netif"}), "descr hello\n");
  EXPECT_EQ(run({"get", "netif", "--json"}), "{\n  \"descr\": \"hello\"\n}\n");
}

TEST_F(Requests, ATableInAReplyIsShownAsOne) {
  replyWithInterface();
  reply_.insert(kl::STD_GETALLNO, 1);
  EXPECT_EQ(run({"get", "netif", "getall"}), "getallno 1\nid name hwaddr\n 2 eth0 02:fc\n");
  EXPECT_EQ(Json::parse(run({"get", "netif", "getall", "--json"}))["objs"][0]["name"], "eth0");
}

TEST_F(Requests, GetallShowsAColumnForEachFieldThatThereIs) {
  replyWithInterface();
  EXPECT_EQ(run({"getall", "netif"}), "id name hwaddr\n 2 eth0 02:fc\n");
  EXPECT_EQ(Json::parse(run({"getall", "netif", "--json"})),
            Json::parse(R"([{"id": 2, "name": "eth0", "hwaddr": "02:fc"}])"));
}

TEST_F(Requests, AnEmptyTableIsRemarkedOnATerminal) {
  for (const std::vector<const char*>& words : {std::vector<const char*>{"getall", "netif/3"},
                                                std::vector<const char*>{"getall", "netif/3", "--json"}}) {
    RecordedChannels channels([this](const kl::message& m) { return answer(m); }, true);
    const CommandLine line = parsed(words);
    EXPECT_EQ(channels.perform(line), line.json ? "[]\n" : "");
    EXPECT_EQ(channels.remarked, line.json ? "" : "netif/3: no objects\n");
  }
}

TEST_F(Requests, AnEmptyTableIsNothingOrAnEmptyList) {
  EXPECT_EQ(run({"getall", "netif"}), "");
  EXPECT_EQ(run({"getall", "netif", "--json"}), "[]\n");
}

TEST_F(Requests, ServicesShowsTheLoadersTable) {
  EXPECT_EQ(run({"services"}).substr(0, 14), "id name  state");
  EXPECT_NE(run({"services"}).find("32 netif running"), std::string::npos) << run({"services"});
  const Json services = Json::parse(run({"services", "--json"}));
  EXPECT_EQ(services[0]["state"], "running");
  EXPECT_EQ(services[0]["drops"], 3);  // JSON has every field
}

TEST_F(Requests, ServicesShowsWhatWaits) {
  const std::string text = run({"services"});
  EXPECT_NE(text.find("queue bytes requests oldest ms drops messages\n"), std::string::npos) << text;
}

TEST_F(Requests, ServicesShowsWhenOneIsToBeStarted) {
  ::setenv("TZ", "UTC0", 1);
  ::tzset();
  EXPECT_EQ(run({"services"}).find("wake_at"), std::string::npos);
  wakeAt_ = 1767225600;
  const std::string text = run({"services"});
  EXPECT_NE(text.find(" wake_at"), std::string::npos) << text;
  EXPECT_NE(text.find("2026-01-01 00:00:00\n"), std::string::npos) << text;
  EXPECT_EQ(Json::parse(run({"services", "--json"}))[0]["wake_at"], 1767225600);
}

TEST_F(Requests, ANumberFindsTheServicesDictionary) {
  replyWithInterface();
  EXPECT_EQ(run({"getall", "32"}), "id name hwaddr\n 2 eth0 02:fc\n");
}

TEST_F(Requests, UnderDumpRepliesAreShownAsTheyCame) {
  reply_.insert(kl::SYS_TYPE, kl::TYPE_REPLY);
  EXPECT_EQ(run({"get", "netif", "--dump"}),
            "--- kl::message --------\n"
            " u32 [SYS_TYPE]=TYPE_REPLY\n"
            "------------------------\n");
  EXPECT_NE(run({"getall", "netif", "--dump"}).find("SYS_TYPE"), std::string::npos);
  EXPECT_NE(run({"services", "--dump"}).find("message[] [STD_OBJS].."), std::string::npos);
}

TEST_F(Requests, ObjectsAndCommandsHaveNames) {
  (void)run({"get", "netif/interface:2"});
  EXPECT_EQ(last_.get(kl::SYS_TO, {}), std::vector<unsigned int>{32});
  EXPECT_EQ(last_.get(kl::STD_ID, 0), 2u);
  const Told told = failureOf([&] { (void)run({"send", "netif", "getcuont"}); });
  EXPECT_EQ(told.status, 2);
  EXPECT_EQ(told.sentence,
            "there is no command 'getcuont'; did you mean 'getcount'? (a number names any; klctl help netif "
            "lists those of netif)");
}

TEST_F(Requests, UnitsAreShownAndRead) {
  reply_.insert_u32(0x08000004, 1500);
  EXPECT_EQ(run({"get", "netif:2"}), "mtu 1500 bytes\n");
  (void)run({"set", "netif:2", "mtu=2KiB"});
  EXPECT_EQ(last_.get_u32(0x08000004, 0), 2048u);
}

TEST_F(Requests, AnErrorReplyIsToldWithThePath) {
  reply_ = kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  const Told told = failureOf([&] { (void)run({"get", "netif/3:99"}); });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "netif/3:99: std failure: unknown id (4)");
}

TEST_F(Requests, MistakesInTheWordsAreToldBeforeAnythingIsSent) {
  const Told told = failureOf([&] { (void)run({"set", "netif", "mtu=big"}); });
  EXPECT_EQ(told.status, 2);
  EXPECT_EQ(told.sentence,
            "mtu is of the type u32 and takes a whole number from 0 to 4294967295 in bytes, not \"big\"");
  EXPECT_TRUE(last_ == kl::message());
}

// A service with a secret, which is shown in no form unless that is asked for.
TEST(Secrets, AreShownOnRequestOnly) {
  char name[] = "/tmp/klctl-secrets-XXXXXX";
  const std::string folder = ::mkdtemp(name);
  std::ofstream(folder + "/safe.toml")
      << "fields = [{ name = \"pin\", field = \"string:77\", secret = true }]\n";
  const auto service = [](const kl::message& request) {
    kl::message safe;
    safe.insert(kl::SVC_NAME, "safe");
    safe.insert_string(0x2000004d, "swordfish");
    kl::message reply;
    if (request.get(kl::SYS_CMD, 0) == kl::CMD_GETALL) reply.insert(kl::STD_OBJS, {flat(safe)});
    else reply = safe;
    return reply;
  };
  const auto run = [&](std::vector<const char*> words) {
    words.insert(words.end(), {"--fields", folder.c_str()});
    return RecordedChannels(service).perform(parsed(words));
  };
  for (const std::vector<const char*>& form :
       {std::vector<const char*>{}, std::vector<const char*>{"--json"}, std::vector<const char*>{"--dump"}}) {
    for (const char* verb : {"get", "getall"}) {
      std::vector<const char*> words = {verb, "300"};
      words.insert(words.end(), form.begin(), form.end());
      EXPECT_EQ(run(words).find("swordfish"), std::string::npos) << verb << run(words);
      words.push_back("--secrets");
      EXPECT_NE(run(words).find("swordfish"), std::string::npos) << verb << run(words);
    }
  }
  EXPECT_NE(run({"get", "300"}).find("(secret)"), std::string::npos) << run({"get", "300"});
  std::filesystem::remove_all(folder);
}

}  // namespace klctl
